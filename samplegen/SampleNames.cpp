#include "samplegen/SampleNames.h"

#include <array>
#include <cctype>

namespace samplegen {
namespace {

constexpr std::array<std::string_view, 25> kVendorFirst = {
    "Blue",   "Bright",  "Cedar",   "Copper", "Delta", "Ember",  "Fern",  "Granite", "Harbor",
    "Indigo", "Juniper", "Kestrel", "Lumen",  "Maple", "Nimbus", "Onyx",  "Pine",    "Quartz",
    "River",  "Summit",  "Tundra",  "Umber",  "Vela",  "Willow", "Zephyr"};
constexpr std::array<std::string_view, 20> kVendorSecond = {
    "Loop", "Field", "Stone", "Wave",  "Peak",  "Leaf", "Gate",   "Bay",  "Forge", "Mill",
    "Bird", "Path",  "Light", "Craft", "Cloud", "Row",  "Bridge", "Hill", "Spark", "Fox"};
constexpr std::array<std::string_view, 10> kVendorSuffix = {
    "Soft", "Labs", "Works", "Apps", "Studio", "Media", "Games", "Systems", "Digital", "Co"};

constexpr std::array<std::string_view, 32> kProductFirst = {
    "Swift",  "Quiet", "Happy",  "Tiny",  "Grand", "Lucky", "Clever", "Daily",
    "Pocket", "Super", "Night",  "Urban", "Wild",  "Smart", "Pure",   "Bold",
    "Calm",   "Easy",  "Fresh",  "Jolly", "Magic", "Micro", "Neat",   "Open",
    "Prime",  "Rapid", "Simple", "Solar", "True",  "Vivid", "Warm",   "Zen"};
constexpr std::array<std::string_view, 36> kProductSecond = {
    "Notes",     "Budget",   "Runner",  "Weather", "Chess",   "Recipes", "Photos",   "Radio",
    "Tasks",     "Maps",     "Journal", "Scanner", "Trainer", "Puzzle",  "Reader",   "Tracker",
    "Wallet",    "Garden",   "Sketch",  "Timer",   "Words",   "Sudoku",  "Podcasts", "Fitness",
    "Translate", "Calendar", "Cards",   "Camera",  "Flights", "Habits",  "Music",    "Lists",
    "Mail",      "Boards",   "Sleep",   "Tunes"};

constexpr std::array<std::string_view, 12> kDocumentFolders = {
    "Inbox",     "Exports", "Drafts", "Projects", "Backups", "Attachments",
    "Downloads", "Archive", "Shared", "Offline",  "Media",   "Imports"};
constexpr std::array<std::string_view, 16> kDocumentStems = {
    "note",   "report", "image", "photo",   "track",  "session", "export", "draft",
    "backup", "scan",   "page",  "receipt", "record", "sketch",  "list",   "clip"};
constexpr std::array<std::string_view, 40> kFiller = {
    "the",    "quick",  "river",  "morning", "garden", "window",  "paper",   "stone",
    "light",  "north",  "coffee", "letter",  "silver", "market",  "winter",  "orange",
    "table",  "forest", "signal", "bridge",  "summer", "planet",  "pocket",  "yellow",
    "harbor", "meadow", "rocket", "candle",  "basket", "travel",  "little",  "journey",
    "number", "silent", "cotton", "marble",  "violet", "thunder", "lantern", "compass"};
constexpr std::array<std::string_view, 10> kGenres = {
    "Productivity",     "Games", "Utilities", "Lifestyle", "Education",
    "Health & Fitness", "Music", "Travel",    "Finance",   "Photo & Video"};

std::string lowercase(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (char c : text) {
    if (std::isalnum(static_cast<unsigned char>(c))) {
      result += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
  }
  return result;
}

}  // namespace

VendorName makeVendorName(DeterministicRandom& random) {
  const std::string_view first = random.pick(std::span<const std::string_view>(kVendorFirst));
  const std::string_view second = random.pick(std::span<const std::string_view>(kVendorSecond));
  const std::string_view suffix = random.pick(std::span<const std::string_view>(kVendorSuffix));
  VendorName name;
  name.display = std::string(first) + " " + std::string(second) + " " + std::string(suffix);
  name.identifier = "com." + lowercase(name.display);
  return name;
}

ProductName makeProductName(DeterministicRandom& random) {
  const std::string_view first = random.pick(std::span<const std::string_view>(kProductFirst));
  const std::string_view second = random.pick(std::span<const std::string_view>(kProductSecond));
  ProductName name;
  name.display = std::string(first) + " " + std::string(second);
  name.bundle = std::string(first) + std::string(second);
  name.token = lowercase(name.bundle);
  return name;
}

std::span<const std::string_view> documentFolderNames() {
  return kDocumentFolders;
}
std::span<const std::string_view> documentStems() {
  return kDocumentStems;
}
std::span<const std::string_view> fillerWords() {
  return kFiller;
}
std::span<const std::string_view> genres() {
  return kGenres;
}

void appendFillerText(DeterministicRandom& random, std::string& out, std::size_t size) {
  std::size_t wordsOnLine = 0;
  while (out.size() < size) {
    const std::string_view word = random.pick(fillerWords());
    out += word;
    if (++wordsOnLine == 12) {
      out += '\n';
      wordsOnLine = 0;
    } else {
      out += ' ';
    }
  }
  out.resize(size);
}

}  // namespace samplegen
