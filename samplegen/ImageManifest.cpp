#include "samplegen/ImageManifest.h"

#include <algorithm>
#include <cstdio>

namespace samplegen {
namespace {

std::string fixed(double number, int decimals) {
  char buffer[400];  // room for any double in fixed notation
  std::snprintf(buffer, sizeof buffer, "%.*f", decimals, number);
  return buffer;
}

// A JSON text built value by value; commas are placed by the writer.
class JSONWriter {
 public:
  void beginObject() { open('{'); }
  void endObject() { close('}'); }
  void beginArray() { open('['); }
  void endArray() { close(']'); }
  void key(std::string_view name) {
    separate();
    string(name);
    text_ += ": ";
    afterKey_ = true;
  }
  void value(std::string_view text) {
    separate();
    string(text);
  }
  void value(const char* text) { value(std::string_view(text)); }
  void value(std::uint64_t number) {
    separate();
    text_ += std::to_string(number);
  }
  void value(double number) {
    separate();
    text_ += fixed(number, 3);
  }
  void value(bool flag) {
    separate();
    text_ += flag ? "true" : "false";
  }
  void strings(const std::vector<std::string>& items) {
    beginArray();
    for (const std::string& item : items)
      value(item);
    endArray();
  }
  std::string take() { return std::move(text_) + "\n"; }

 private:
  void open(char bracket) {
    separate();
    text_ += bracket;
    first_ = true;
    ++depth_;
  }
  void close(char bracket) {
    --depth_;
    if (!first_) newline();
    text_ += bracket;
    first_ = false;
  }
  void separate() {
    if (afterKey_) {
      afterKey_ = false;
      return;
    }
    if (depth_ == 0) return;
    if (!first_) text_ += ',';
    newline();
    first_ = false;
  }
  void newline() {
    text_ += '\n';
    text_.append(static_cast<std::size_t>(depth_) * 2, ' ');
  }
  void string(std::string_view text) {
    text_ += '"';
    for (const char c : text) {
      const auto byte = static_cast<unsigned char>(c);
      if (c == '"' || c == '\\') {
        text_ += '\\';
        text_ += c;
      } else if (byte < 0x20) {
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\u%04x", byte);
        text_ += escape;
      } else {
        text_ += c;
      }
    }
    text_ += '"';
  }

  std::string text_;
  int depth_ = 0;
  bool first_ = true;
  bool afterKey_ = false;
};

}  // namespace

std::size_t ImageManifest::applicationCount() const {
  return static_cast<std::size_t>(
      std::count_if(containers.begin(), containers.end(),
                    [](const ContainerManifest& c) { return c.containerType == "App"; }));
}

std::size_t ImageManifest::vpnOnlyCount() const {
  return containers.size() - applicationCount();
}

std::string manifestJSON(const ImageManifest& manifest) {
  JSONWriter json;
  json.beginObject();
  json.key("root");
  json.value(manifest.root);
  json.key("seed");
  json.value(manifest.seed);
  json.key("dataScale");
  json.value(manifest.dataScale);
  json.key("legacyDirectory");
  json.value(manifest.legacyDirectory);
  json.key("installMap");
  json.value(manifest.installMapPath);
  json.key("harborMap");
  json.value(manifest.harborMapPath);
  json.key("systemBuild");
  json.value(manifest.systemBuildPath);
  json.key("strayNote");
  json.value(manifest.strayNotePath);

  json.key("containers");
  json.beginArray();
  for (const ContainerManifest& container : manifest.containers) {
    json.beginObject();
    json.key("identifier");
    json.value(container.identifier);
    json.key("containerType");
    json.value(container.containerType);
    json.key("containerPath");
    json.value(container.containerPath);
    json.key("bundlePath");
    json.value(container.bundlePath);
    if (!container.vpnPluginPath.empty()) {
      json.key("vpnPluginPath");
      json.value(container.vpnPluginPath);
    }
    json.key("infoPlistFormat");
    json.value(container.infoPlistFormat);
    json.key("groups");
    json.strings(container.groups);
    json.key("storeMetadata");
    json.strings(container.storeMetadata);
    json.key("dataFiles");
    json.value(container.dataFiles);
    json.key("dataBytes");
    json.value(container.dataBytes);
    json.key("missingExecutable");
    json.value(container.missingExecutable);
    json.key("extraItem");
    json.value(container.extraItem);
    json.key("builtInDuplicate");
    json.value(container.builtInDuplicate);
    json.endObject();
  }
  json.endArray();

  json.key("groupContainers");
  json.beginArray();
  for (const GroupContainerManifest& group : manifest.groupContainers) {
    json.beginObject();
    json.key("identifier");
    json.value(group.identifier);
    json.key("path");
    json.value(group.path);
    json.key("members");
    json.strings(group.members);
    json.key("files");
    json.value(group.files);
    json.key("bytes");
    json.value(group.bytes);
    json.endObject();
  }
  json.endArray();

  json.key("harbors");
  json.beginArray();
  for (const HarborManifest& harbor : manifest.harbors) {
    json.beginObject();
    json.key("identifier");
    json.value(harbor.identifier);
    json.key("path");
    json.value(harbor.path);
    json.key("files");
    json.value(harbor.files);
    json.key("bytes");
    json.value(harbor.bytes);
    json.endObject();
  }
  json.endArray();

  json.key("builtInApplications");
  json.beginArray();
  for (const BuiltInManifest& builtIn : manifest.builtIns) {
    json.beginObject();
    json.key("identifier");
    json.value(builtIn.identifier);
    json.key("bundlePath");
    json.value(builtIn.bundlePath);
    json.key("location");
    json.value(builtIn.location);
    json.endObject();
  }
  json.endArray();

  json.key("totals");
  json.beginObject();
  json.key("applications");
  json.value(std::uint64_t{manifest.applicationCount()});
  json.key("vpnOnlyContainers");
  json.value(std::uint64_t{manifest.vpnOnlyCount()});
  json.key("files");
  json.value(manifest.files);
  json.key("directories");
  json.value(manifest.directories);
  json.key("bytes");
  json.value(manifest.bytes);
  json.key("seconds");
  json.value(manifest.seconds);
  json.endObject();
  json.endObject();
  return json.take();
}

std::string manifestSummary(const ImageManifest& manifest) {
  const auto withVPN =
      std::count_if(manifest.containers.begin(), manifest.containers.end(),
                    [](const ContainerManifest& c) { return !c.vpnPluginPath.empty(); });
  const auto count = [](auto number) { return std::to_string(number); };
  return "Legacy device image at " + manifest.root + " (seed " + count(manifest.seed) + ")\n" +
         "  applications: " + count(manifest.applicationCount()) + " (" + count(withVPN) +
         " with a VPN plug-in), VPN-only containers: " + count(manifest.vpnOnlyCount()) + "\n" +
         "  group containers: " + count(manifest.groupContainers.size()) +
         ", safe harbors: " + count(manifest.harbors.size()) +
         ", built-in applications: " + count(manifest.builtIns.size()) + "\n" +
         "  files: " + count(manifest.files) + ", directories: " + count(manifest.directories) +
         ", bytes: " + count(manifest.bytes) + " (" +
         fixed(static_cast<double>(manifest.bytes) / (1024.0 * 1024.0), 1) + " MB), made in " +
         fixed(manifest.seconds, 2) + " s\n";
}

}  // namespace samplegen
