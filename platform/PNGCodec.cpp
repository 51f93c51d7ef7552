#include "platform/PNGCodec.h"

#include <png.h>
#include <zlib.h>

#include <csetjmp>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "platform/Value.h"

// libpng reports errors by longjmp. Every function below that calls into
// libpng after setjmp is C-style: it holds no object with a destructor, so a
// jump out of libpng skips nothing. The C++ objects (buffers, the handle that
// destroys the libpng structures) live in the callers, outside those frames.

namespace platform {
namespace {

constexpr std::size_t kSignatureSize = 8;
constexpr std::size_t kHeaderBytes = kSignatureSize + 8 + 13 + 4;  // signature, IHDR with CRC
constexpr std::uint32_t kLargestPNGDimension = 0x7fffffffu;
constexpr std::size_t kMessageCapacity = 160;

// State the libpng callbacks share with the C-style functions; trivially
// destructible, so a longjmp over it is harmless.
struct CodecState {
  const std::uint8_t* input = nullptr;
  std::size_t inputSize = 0;
  std::size_t inputOffset = 0;
  std::vector<std::uint8_t>* output = nullptr;
  char message[kMessageCapacity] = {};
};

void recordMessage(CodecState* state, const char* text) {
  if (state == nullptr) return;
  std::size_t length = 0;
  if (text != nullptr) {
    while (length + 1 < kMessageCapacity && text[length] != '\0')
      ++length;
    std::memcpy(state->message, text, length);
  }
  state->message[length] = '\0';
}

void onPNGError(png_structp png, png_const_charp message) {
  recordMessage(static_cast<CodecState*>(png_get_error_ptr(png)), message);
  png_longjmp(png, 1);
}

void onPNGWarning(png_structp, png_const_charp) {
  // Warnings (an ancillary chunk with a bad CRC, a text chunk over the limit)
  // drop the chunk concerned; the image itself is still good.
}

void readFromMemory(png_structp png, png_bytep destination, std::size_t length) {
  auto* state = static_cast<CodecState*>(png_get_io_ptr(png));
  if (length > state->inputSize - state->inputOffset) png_error(png, "truncated PNG data");
  std::memcpy(destination, state->input + state->inputOffset, length);
  state->inputOffset += length;
}

void writeToMemory(png_structp png, png_bytep bytes, std::size_t length) {
  auto* state = static_cast<CodecState*>(png_get_io_ptr(png));
  bool failed = false;
  try {
    state->output->insert(state->output->end(), bytes, bytes + length);
  } catch (...) {
    failed = true;
  }
  // Raised only after the handler has finished, so no exception is in flight
  // when libpng jumps.
  if (failed) png_error(png, "out of memory for the encoded PNG");
}

void flushNothing(png_structp) {}

std::uint32_t bigEndian32(const std::uint8_t* bytes) {
  return (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) |
         (std::uint32_t{bytes[2]} << 8) | std::uint32_t{bytes[3]};
}

bool isLegalDepthForColorType(std::uint8_t colorType, std::uint8_t bitDepth) {
  switch (colorType) {
    case 0:  // grey
      return bitDepth == 1 || bitDepth == 2 || bitDepth == 4 || bitDepth == 8 || bitDepth == 16;
    case 3:  // palette
      return bitDepth == 1 || bitDepth == 2 || bitDepth == 4 || bitDepth == 8;
    case 2:  // RGB
    case 4:  // grey + alpha
    case 6:  // RGBA
      return bitDepth == 8 || bitDepth == 16;
    default:
      return false;
  }
}

CVError pngError(long code, std::string description) {
  CVDictionary userInfo;
  userInfo.set(std::string(kLocalizedDescriptionKey), std::move(description));
  return CVError(std::string(kPNGErrorDomain), code, std::move(userInfo));
}

// Owns a libpng read structure and its info structure.
class PNGReadHandle {
 public:
  explicit PNGReadHandle(CodecState* state) {
    png_ = png_create_read_struct(PNG_LIBPNG_VER_STRING, state, onPNGError, onPNGWarning);
    if (png_ != nullptr) info_ = png_create_info_struct(png_);
  }
  ~PNGReadHandle() {
    if (png_ != nullptr)
      png_destroy_read_struct(&png_, info_ != nullptr ? &info_ : nullptr, nullptr);
  }
  PNGReadHandle(const PNGReadHandle&) = delete;
  PNGReadHandle& operator=(const PNGReadHandle&) = delete;

  bool valid() const { return png_ != nullptr && info_ != nullptr; }
  png_structp png() const { return png_; }
  png_infop info() const { return info_; }

 private:
  png_structp png_ = nullptr;
  png_infop info_ = nullptr;
};

// Owns a libpng write structure and its info structure.
class PNGWriteHandle {
 public:
  explicit PNGWriteHandle(CodecState* state) {
    png_ = png_create_write_struct(PNG_LIBPNG_VER_STRING, state, onPNGError, onPNGWarning);
    if (png_ != nullptr) info_ = png_create_info_struct(png_);
  }
  ~PNGWriteHandle() {
    if (png_ != nullptr) png_destroy_write_struct(&png_, info_ != nullptr ? &info_ : nullptr);
  }
  PNGWriteHandle(const PNGWriteHandle&) = delete;
  PNGWriteHandle& operator=(const PNGWriteHandle&) = delete;

  bool valid() const { return png_ != nullptr && info_ != nullptr; }
  png_structp png() const { return png_; }
  png_infop info() const { return info_; }

 private:
  png_structp png_ = nullptr;
  png_infop info_ = nullptr;
};

// C-style: reads everything up to the image data and arranges the transforms
// that deliver 8-bit RGBA rows whatever the stored format.
bool readInfoAsRGBA8(png_structp png, png_infop info, const PNGDecodeLimits* limits,
                     CodecState* state, png_uint_32* width, png_uint_32* height) {
  if (setjmp(png_jmpbuf(png))) return false;

  png_set_user_limits(png, limits->maxWidth, limits->maxHeight);
  png_set_chunk_cache_max(png, limits->maxCachedChunks);
  png_set_chunk_malloc_max(png, limits->maxChunkBytes);
  // Chunks libpng does not know are skipped rather than stored.
  png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, nullptr, 0);
  png_set_read_fn(png, state, readFromMemory);
  png_read_info(png, info);

  const png_byte colorType = png_get_color_type(png, info);
  const png_byte bitDepth = png_get_bit_depth(png, info);
  const bool hasTransparencyChunk = png_get_valid(png, info, PNG_INFO_tRNS) != 0;
  if (colorType == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
  if (colorType == PNG_COLOR_TYPE_GRAY && bitDepth < 8) png_set_expand_gray_1_2_4_to_8(png);
  if (hasTransparencyChunk) png_set_tRNS_to_alpha(png);
  if (bitDepth == 16) png_set_scale_16(png);
  if ((colorType & PNG_COLOR_MASK_COLOR) == 0) png_set_gray_to_rgb(png);
  if ((colorType & PNG_COLOR_MASK_ALPHA) == 0 && !hasTransparencyChunk) {
    png_set_add_alpha(png, 0xff, PNG_FILLER_AFTER);
  }
  png_set_interlace_handling(png);
  png_read_update_info(png, info);

  const png_uint_32 rowWidth = png_get_image_width(png, info);
  if (png_get_bit_depth(png, info) != 8 || png_get_channels(png, info) != 4 ||
      png_get_rowbytes(png, info) != std::size_t{rowWidth} * 4) {
    png_error(png, "PNG did not convert to 8-bit RGBA");
  }
  *width = rowWidth;
  *height = png_get_image_height(png, info);
  return true;
}

// C-style: reads every row (all interlace passes), then the chunks after the
// image data through IEND.
bool readRowsAndEnd(png_structp png, png_infop info, png_bytepp rows) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_read_image(png, rows);
  png_read_end(png, info);
  return true;
}

// C-style: writes a whole 8-bit RGBA image.
bool writeRGBA8(png_structp png, png_infop info, CodecState* state, png_uint_32 width,
                png_uint_32 height, png_bytepp rows) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_set_write_fn(png, state, writeToMemory, flushNothing);
  png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  // What gets encoded is small (a home-screen icon per placeholder): one row
  // filter instead of trying all five on every row, and the fastest deflate
  // level, cost a little size and save most of the encoding time.
  png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_SUB);
  png_set_compression_level(png, 1);
  png_write_info(png, info);
  png_write_image(png, rows);
  png_write_end(png, nullptr);
  return true;
}

std::uint8_t premultiply(std::uint8_t value, std::uint8_t alpha) {
  return static_cast<std::uint8_t>((unsigned{value} * alpha + 127) / 255);
}

std::uint8_t unpremultiply(std::uint8_t value, std::uint8_t alpha) {
  const unsigned straight = (unsigned{value} * 255 + alpha / 2u) / alpha;
  return static_cast<std::uint8_t>(straight > 255 ? 255 : straight);
}

}  // namespace

std::optional<PNGHeader> peekPNGHeader(std::span<const std::uint8_t> bytes, CVError* error) {
  static constexpr std::uint8_t kSignature[kSignatureSize] = {0x89, 'P',  'N',  'G',
                                                              '\r', '\n', 0x1a, '\n'};
  const auto notPNG = [&](const char* reason) {
    CVSetError(error, pngError(kPNGNotPNGError, std::string("not a PNG: ") + reason));
    return std::nullopt;
  };
  if (bytes.size() < kHeaderBytes) return notPNG("too short for a header");
  if (std::memcmp(bytes.data(), kSignature, kSignatureSize) != 0) return notPNG("no signature");
  const std::uint8_t* chunk = bytes.data() + kSignatureSize;
  if (bigEndian32(chunk) != 13 || std::memcmp(chunk + 4, "IHDR", 4) != 0) {
    return notPNG("IHDR is not the first chunk");
  }
  const std::uint8_t* fields = chunk + 8;
  if (crc32(crc32(0, nullptr, 0), chunk + 4, 4 + 13) != bigEndian32(fields + 13)) {
    return notPNG("IHDR checksum mismatch");
  }
  PNGHeader header;
  header.width = bigEndian32(fields);
  header.height = bigEndian32(fields + 4);
  header.bitDepth = fields[8];
  header.colorType = fields[9];
  const std::uint8_t compression = fields[10];
  const std::uint8_t filter = fields[11];
  const std::uint8_t interlace = fields[12];
  if (header.width == 0 || header.height == 0 || header.width > kLargestPNGDimension ||
      header.height > kLargestPNGDimension) {
    return notPNG("illegal dimensions");
  }
  if (!isLegalDepthForColorType(header.colorType, header.bitDepth)) {
    return notPNG("illegal bit depth or colour type");
  }
  if (compression != 0 || filter != 0 || interlace > 1) return notPNG("unknown method");
  header.interlaced = interlace == 1;
  return header;
}

std::optional<Image> decodePNG(std::span<const std::uint8_t> bytes, const PNGDecodeLimits& limits,
                               CVError* error) {
  const std::optional<PNGHeader> header = peekPNGHeader(bytes, error);
  if (!header) return std::nullopt;
  if (header->width > limits.maxWidth || header->height > limits.maxHeight) {
    CVSetError(error, pngError(kPNGTooLargeError, "PNG of " + std::to_string(header->width) +
                                                      " x " + std::to_string(header->height) +
                                                      " pixels exceeds the limit of " +
                                                      std::to_string(limits.maxWidth) + " x " +
                                                      std::to_string(limits.maxHeight)));
    return std::nullopt;
  }

  CodecState state;
  state.input = bytes.data();
  state.inputSize = bytes.size();
  PNGReadHandle handle(&state);
  if (!handle.valid()) {
    CVSetError(error, pngError(kPNGOutOfMemoryError, "cannot create a PNG reader"));
    return std::nullopt;
  }
  const auto corrupt = [&] {
    CVSetError(error, pngError(kPNGCorruptError, std::string("corrupt PNG: ") + state.message));
    return std::nullopt;
  };

  png_uint_32 width = 0;
  png_uint_32 height = 0;
  if (!readInfoAsRGBA8(handle.png(), handle.info(), &limits, &state, &width, &height)) {
    return corrupt();
  }

  Image image;
  std::vector<png_bytep> rows;
  try {
    image.pixels.resize(std::size_t{width} * height * 4);
    rows.resize(height);
  } catch (const std::bad_alloc&) {
    CVSetError(error, pngError(kPNGOutOfMemoryError, "no memory for the PNG's pixels"));
    return std::nullopt;
  }
  for (png_uint_32 row = 0; row < height; ++row) {
    rows[row] = image.pixels.data() + std::size_t{row} * width * 4;
  }
  if (!readRowsAndEnd(handle.png(), handle.info(), rows.data())) return corrupt();

  for (std::size_t offset = 0; offset < image.pixels.size(); offset += 4) {
    std::uint8_t* pixel = image.pixels.data() + offset;
    const std::uint8_t alpha = pixel[3];
    if (alpha == 255) continue;
    for (int channel = 0; channel < 3; ++channel)
      pixel[channel] = premultiply(pixel[channel], alpha);
  }
  image.width = width;
  image.height = height;
  return image;
}

std::optional<std::vector<std::uint8_t>> encodePNG(const Image& image, CVError* error) {
  const auto fail = [&](std::string reason) {
    CVSetError(error, pngError(kPNGEncodeError, "cannot encode PNG: " + std::move(reason)));
    return std::nullopt;
  };
  if (image.width == 0 || image.height == 0 || image.width > kLargestPNGDimension ||
      image.height > kLargestPNGDimension) {
    return fail("illegal dimensions");
  }
  const std::uint64_t expectedSize = std::uint64_t{image.width} * image.height * 4;
  if (image.pixels.size() != expectedSize) return fail("pixel buffer does not match dimensions");

  std::vector<std::uint8_t> straight;
  std::vector<png_bytep> rows;
  std::vector<std::uint8_t> encoded;
  try {
    straight = image.pixels;
    rows.resize(image.height);
    encoded.reserve(1024);
  } catch (const std::bad_alloc&) {
    return fail("out of memory");
  }
  for (std::size_t offset = 0; offset < straight.size(); offset += 4) {
    std::uint8_t* pixel = straight.data() + offset;
    const std::uint8_t alpha = pixel[3];
    if (alpha == 255) continue;
    for (int channel = 0; channel < 3; ++channel) {
      pixel[channel] = alpha == 0 ? 0 : unpremultiply(pixel[channel], alpha);
    }
  }
  for (std::uint32_t row = 0; row < image.height; ++row) {
    rows[row] = straight.data() + std::size_t{row} * image.width * 4;
  }

  CodecState state;
  state.output = &encoded;
  PNGWriteHandle handle(&state);
  if (!handle.valid()) return fail("cannot create a PNG writer");
  if (!writeRGBA8(handle.png(), handle.info(), &state, image.width, image.height, rows.data())) {
    return fail(state.message);
  }
  return encoded;
}

}  // namespace platform
