// PNG decoding and encoding in memory, built for untrusted input.
//
// Decoding turns every PNG colour type, bit depth, interlace method and
// transparency chunk into an 8-bit premultiplied RGBA Image. Hostile data
// (truncated streams, bad checksums, absurd dimensions, oversized or
// numerous ancillary chunks) fails cleanly; the image size is bounded by the
// caller's limits before any pixel memory is reserved. Gamma and colour
// profile chunks are ignored: samples are taken as stored.
//
// Error contract: every function returns nullopt on failure and stores a
// kPNGErrorDomain record (code below, description naming the reason) in
// `error` when a place is given. Nothing throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "platform/Error.h"
#include "platform/Image.h"

namespace platform {

inline constexpr std::string_view kPNGErrorDomain = "PNGErrorDomain";
// The bytes do not start with a PNG signature and a well-formed IHDR chunk.
inline constexpr long kPNGNotPNGError = 1;
// The image is wider or taller than the limits allow.
inline constexpr long kPNGTooLargeError = 2;
// The stream is corrupt or truncated (libpng's message is the description).
inline constexpr long kPNGCorruptError = 3;
// The image cannot be encoded (malformed Image, or the encoder failed).
inline constexpr long kPNGEncodeError = 4;
// Memory for the pixels could not be had.
inline constexpr long kPNGOutOfMemoryError = 5;

// What the IHDR chunk says, read without decoding anything else.
struct PNGHeader {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint8_t bitDepth = 0;
  std::uint8_t colorType = 0;
  bool interlaced = false;
  std::uint64_t pixelCount() const { return std::uint64_t{width} * height; }
};

// Zero for either chunk limit means "no limit", as libpng takes it.
struct PNGDecodeLimits {
  std::uint32_t maxWidth = 4096;
  std::uint32_t maxHeight = 4096;
  // Largest ancillary chunk (or decompressed text) held in memory.
  std::size_t maxChunkBytes = 1024 * 1024;
  // Most ancillary chunks of the kinds libpng stores (text, sPLT, ...).
  std::uint32_t maxCachedChunks = 64;
};

// The header of `bytes`: the signature, then IHDR as the first chunk, with a
// good checksum, legal dimensions and a legal bit depth / colour type pair.
// Fails with
// kPNGNotPNGError. Only the first 33 bytes are looked at.
std::optional<PNGHeader> peekPNGHeader(std::span<const std::uint8_t> bytes, CVError* error);

// Decodes a whole PNG (through IEND, every CRC checked) into premultiplied
// RGBA. Fails with kPNGNotPNGError, kPNGTooLargeError, kPNGCorruptError or
// kPNGOutOfMemoryError.
std::optional<Image> decodePNG(std::span<const std::uint8_t> bytes, const PNGDecodeLimits& limits,
                               CVError* error);

// Encodes `image` as a non-interlaced 8-bit RGBA PNG with straight alpha.
// Fails with kPNGEncodeError.
std::optional<std::vector<std::uint8_t>> encodePNG(const Image& image, CVError* error);

}  // namespace platform
