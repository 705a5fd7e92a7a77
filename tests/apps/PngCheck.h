// Reads a PNG file as a user's viewer would, to check a picture in a test:
// the signature, every chunk's CRC, the header, and the image data inflated
// and unfiltered into pixels. No test-framework dependency.
#pragma once

#include <string>
#include <vector>

#include "Kiln/Types.h"

namespace AgentTest {

struct PngImage {
  U32 width = 0;
  U32 height = 0;
  // One RGBA value (0xRRGGBBAA) per pixel, row by row.
  std::vector<U32> pixels;
  // The number of distinct pixel values.
  size_t colours() const;
  // The share of pixels that are not opaque white (0 to 1).
  double inkShare() const;
};

// Decodes PNG bytes of 8-bit RGB or RGBA, not interlaced. Returns an empty
// string and the image, or what is wrong with the file.
std::string decodePng(const std::string& bytes, PngImage& image);

}  // namespace AgentTest
