#include "PngCheck.h"

#include <zlib.h>

#include <cstdlib>
#include <set>

namespace AgentTest {
namespace {

U32 bigEndian(const std::string& bytes, size_t at) {
  return (U32(U8(bytes[at])) << 24) | (U32(U8(bytes[at + 1])) << 16) |
         (U32(U8(bytes[at + 2])) << 8) | U32(U8(bytes[at + 3]));
}

// The Paeth predictor of the PNG filters.
U8 paeth(int a, int b, int c) {
  const int p = a + b - c;
  const int pa = std::abs(p - a);
  const int pb = std::abs(p - b);
  const int pc = std::abs(p - c);
  if (pa <= pb && pa <= pc) return static_cast<U8>(a);
  return static_cast<U8>(pb <= pc ? b : c);
}

}  // namespace

size_t PngImage::colours() const { return std::set<U32>(pixels.begin(), pixels.end()).size(); }

double PngImage::inkShare() const {
  if (pixels.empty()) return 0;
  size_t ink = 0;
  for (U32 p : pixels) ink += p != 0xFFFFFFFFu;
  return double(ink) / double(pixels.size());
}

std::string decodePng(const std::string& bytes, PngImage& image) {
  static const std::string signature("\x89PNG\r\n\x1a\n", 8);
  if (bytes.compare(0, 8, signature) != 0) return "no PNG signature";
  size_t at = 8;
  std::string data;
  U32 channels = 0;
  bool ended = false;
  while (!ended) {
    if (at + 12 > bytes.size()) return "a chunk runs past the end of the file";
    const U32 length = bigEndian(bytes, at);
    if (at + 12 + length > bytes.size()) return "a chunk runs past the end of the file";
    const std::string type = bytes.substr(at + 4, 4);
    const std::string body = bytes.substr(at + 8, length);
    const U32 crc = static_cast<U32>(crc32(
        crc32(0, nullptr, 0), reinterpret_cast<const Bytef*>(bytes.data() + at + 4), length + 4));
    if (crc != bigEndian(bytes, at + 8 + length)) return "bad CRC in chunk " + type;
    if (type == "IHDR") {
      if (length != 13) return "IHDR is not 13 bytes";
      image.width = bigEndian(body, 0);
      image.height = bigEndian(body, 4);
      const U8 depth = U8(body[8]);
      const U8 colourType = U8(body[9]);
      if (depth != 8 || (colourType != 2 && colourType != 6) || body[12] != 0) {
        return "not 8-bit RGB or RGBA without interlace";
      }
      channels = colourType == 6 ? 4 : 3;
    } else if (type == "IDAT") {
      data += body;
    } else if (type == "IEND") {
      ended = true;
    }
    at += 12 + length;
  }
  if (channels == 0 || image.width == 0 || image.height == 0) return "no image header";
  const size_t stride = size_t(image.width) * channels;
  std::vector<U8> raw(image.height * (stride + 1));
  uLongf rawSize = raw.size();
  if (uncompress(raw.data(), &rawSize, reinterpret_cast<const Bytef*>(data.data()), data.size()) !=
          Z_OK ||
      rawSize != raw.size()) {
    return "the image data does not inflate to its size";
  }
  std::vector<U8> previous(stride, 0);
  std::vector<U8> row(stride);
  image.pixels.clear();
  for (U32 y = 0; y < image.height; ++y) {
    const U8 filter = raw[y * (stride + 1)];
    const U8* in = &raw[y * (stride + 1) + 1];
    for (size_t i = 0; i < stride; ++i) {
      const int a = i >= channels ? row[i - channels] : 0;
      const int b = previous[i];
      const int c = i >= channels ? previous[i - channels] : 0;
      int predicted = 0;
      switch (filter) {
        case 0: predicted = 0; break;
        case 1: predicted = a; break;
        case 2: predicted = b; break;
        case 3: predicted = (a + b) / 2; break;
        case 4: predicted = paeth(a, b, c); break;
        default: return "unknown filter " + std::to_string(filter) + " on row " + std::to_string(y);
      }
      row[i] = static_cast<U8>(in[i] + predicted);
    }
    for (U32 x = 0; x < image.width; ++x) {
      const U8* p = &row[x * channels];
      image.pixels.push_back((U32(p[0]) << 24) | (U32(p[1]) << 16) | (U32(p[2]) << 8) |
                             (channels == 4 ? p[3] : 0xFF));
    }
    previous = row;
  }
  return "";
}

}  // namespace AgentTest
