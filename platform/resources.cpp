// Device resources: bitmaps read from binary netpbm files (P5 grey or P6
// colour, 8 bits) at /fwroot/share/resources/<name>.pnm under the root, and
// written as uncompressed 24-bit BMP files.
#define QS_SOURCE_NAME "platform/resources"

#include <stdint.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "device_root.h"
#include "host_common.h"
#include "qs_log.h"
#include "tessera.h"

using quillstone::kLogError;

namespace {

constexpr char kResourceFolder[] = "/fwroot/share/resources/";
constexpr int kMaxSide = 4096;
constexpr size_t kMaxResourceBytes = 3u * kMaxSide * kMaxSide + 64;

struct Bitmap {
  uint32_t magic = kMagic;
  int width = 0;
  int height = 0;
  int channels = 0;                 // 1 grey, 3 red-green-blue
  std::vector<unsigned char> data;  // rows top to bottom, no padding

  static constexpr uint32_t kMagic = 0x424d5031;  // tells our bitmaps from stray pointers
};

// Reads the next header number of a netpbm file, skipping blanks and
// comments; false at a malformed or missing number.
bool ReadNumber(const std::string& text, size_t* pos, int* value) {
  while (*pos < text.size()) {
    const char c = text[*pos];
    if (c == '#') {
      while (*pos < text.size() && text[*pos] != '\n') ++*pos;
    } else if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
      ++*pos;
    } else {
      break;
    }
  }
  long number = 0;
  size_t digits = 0;
  while (*pos < text.size() && text[*pos] >= '0' && text[*pos] <= '9' && digits < 6) {
    number = number * 10 + (text[*pos] - '0');
    ++*pos;
    ++digits;
  }
  *value = static_cast<int>(number);
  return digits > 0;
}

std::unique_ptr<Bitmap> LoadBitmap(const std::string& path) {
  std::string text;
  if (quillstone::host::ReadWholeFile(path, kMaxResourceBytes, &text) != 0) return nullptr;
  if (text.size() < 2 || text[0] != 'P' || (text[1] != '5' && text[1] != '6')) {
    QS_LOG(kLogError, "resource %s is not a binary netpbm file", path.c_str());
    return nullptr;
  }
  std::unique_ptr<Bitmap> bitmap(new Bitmap);
  bitmap->channels = text[1] == '5' ? 1 : 3;
  size_t pos = 2;
  int maxval = 0;
  if (!ReadNumber(text, &pos, &bitmap->width) || !ReadNumber(text, &pos, &bitmap->height) ||
      !ReadNumber(text, &pos, &maxval) || pos >= text.size() || maxval != 255 ||
      bitmap->width < 1 || bitmap->height < 1 || bitmap->width > kMaxSide ||
      bitmap->height > kMaxSide) {
    QS_LOG(kLogError, "resource %s has a bad header (8-bit, up to %d pixels a side)", path.c_str(),
           kMaxSide);
    return nullptr;
  }
  ++pos;  // the single blank after the header
  const size_t size = static_cast<size_t>(bitmap->width) * bitmap->height * bitmap->channels;
  if (text.size() - pos < size) {
    QS_LOG(kLogError, "resource %s is cut short", path.c_str());
    return nullptr;
  }
  bitmap->data.assign(text.begin() + pos, text.begin() + pos + size);
  return bitmap;
}

void PutLe(std::string* out, uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out->push_back(static_cast<char>((value >> (8 * i)) & 0xff));
}

}  // namespace

void* GetResource(const char* name, void* deflt) {
  static std::mutex mutex;
  static std::map<std::string, std::unique_ptr<Bitmap>> cache;  // lives to process exit
  if (!name || !*name) return deflt;
  const std::string key = name;
  if (key.find('/') != std::string::npos || key.find("..") != std::string::npos) return deflt;
  std::lock_guard<std::mutex> lock(mutex);
  auto found = cache.find(key);
  if (found == cache.end()) {
    // Only a bitmap is kept: a resource that is missing now may be installed later.
    const std::string path = quillstone::utilities::DevicePath(kResourceFolder + key + ".pnm");
    std::unique_ptr<Bitmap> bitmap = LoadBitmap(path);
    if (!bitmap) return deflt;
    found = cache.emplace(key, std::move(bitmap)).first;
  }
  return found->second.get();
}

int SaveBitmap(const char* path, void* bitmap_pointer) {
  const Bitmap* bitmap = static_cast<const Bitmap*>(bitmap_pointer);
  if (!path || !bitmap || bitmap->magic != Bitmap::kMagic) return -1;
  const uint32_t row_bytes = (3u * bitmap->width + 3u) & ~3u;  // rows are padded to 4 bytes
  const uint32_t pixel_bytes = row_bytes * bitmap->height;
  std::string out;
  out.reserve(54 + pixel_bytes);
  out += "BM";
  PutLe(&out, 54 + pixel_bytes, 4);  // file size
  PutLe(&out, 0, 4);                 // reserved
  PutLe(&out, 54, 4);                // offset of the pixels
  PutLe(&out, 40, 4);                // BITMAPINFOHEADER
  PutLe(&out, bitmap->width, 4);
  PutLe(&out, bitmap->height, 4);  // positive: rows bottom to top
  PutLe(&out, 1, 2);               // planes
  PutLe(&out, 24, 2);              // bits per pixel
  PutLe(&out, 0, 4);               // no compression
  PutLe(&out, pixel_bytes, 4);
  PutLe(&out, 2835, 4);  // 72 dpi
  PutLe(&out, 2835, 4);
  PutLe(&out, 0, 4);
  PutLe(&out, 0, 4);
  for (int y = bitmap->height - 1; y >= 0; --y) {
    const unsigned char* row =
        bitmap->data.data() + static_cast<size_t>(y) * bitmap->width * bitmap->channels;
    for (int x = 0; x < bitmap->width; ++x) {
      const unsigned char* p = row + x * bitmap->channels;
      const unsigned char r = p[0], g = bitmap->channels == 3 ? p[1] : p[0],
                          b = bitmap->channels == 3 ? p[2] : p[0];
      out.push_back(static_cast<char>(b));
      out.push_back(static_cast<char>(g));
      out.push_back(static_cast<char>(r));
    }
    out.append(row_bytes - 3u * bitmap->width, '\0');
  }
  const int err = quillstone::host::ReplaceFile(path, out, false);
  if (err != 0) {
    QS_LOG(kLogError, "cannot write the bitmap %s: error %d", path, err);
    return -1;
  }
  return 0;
}
