#include "string_utils.h"

#include <stdlib.h>
#include <string.h>

#include <cwchar>

#include "tessera.h"

namespace quillstone {
namespace utilities {

// The stored lowercase forms of paths depend on this mapping, so it goes
// through the device's one case table and nothing else.
std::string StringUtils::ToLower(std::string text) {
  char* copy = strdup(text.c_str());
  if (!copy) return text;
  char* lower = nullptr;
  size_t lower_length = 0;
  char* result = copy;
  if (utf_tolower_ext(copy, -1, &lower, &lower_length) >= 0 && lower) {
    free(copy);
    result = lower;
  } else {
    free(lower);  // a failed call may still have left a text behind
  }
  std::string out(result);
  free(result);
  return out;
}

}  // namespace utilities
}  // namespace quillstone

namespace {

typedef std::codecvt<wchar_t, char, std::mbstate_t> WideFacet;

}  // namespace

std::string narrow(const std::wstring& text, const std::locale& locale) {
  if (text.empty()) return std::string();
  const WideFacet& facet = std::use_facet<WideFacet>(locale);
  std::mbstate_t state = std::mbstate_t();
  std::string out(text.size() * static_cast<size_t>(facet.max_length()), '\0');
  const wchar_t* const begin = text.data();
  const wchar_t* const end = begin + text.size();
  size_t in_pos = 0;
  size_t out_pos = 0;
  for (;;) {
    const wchar_t* from_next = begin + in_pos;
    char* to_next = &out[0] + out_pos;
    const std::codecvt_base::result r = facet.out(state, begin + in_pos, end, from_next,
                                                  &out[0] + out_pos, &out[0] + out.size(), to_next);
    const bool progressed = from_next != begin + in_pos || to_next != &out[0] + out_pos;
    in_pos = from_next - begin;
    out_pos = to_next - &out[0];
    switch (r) {
      case std::codecvt_base::ok:
        out.resize(out_pos);
        return out;
      case std::codecvt_base::partial:
        // Doubling helps only when the output ran short; an input that ends
        // inside a character would otherwise grow the buffer for ever.
        if (!progressed) {
          out.resize(out_pos);
          return out;
        }
        out.resize(out.size() * 2);
        break;
      case std::codecvt_base::error:
        return out;  // as it stands, full length
      case std::codecvt_base::noconv:
        out.resize(out_pos);
        out.append(reinterpret_cast<const char*>(begin + in_pos),
                   (text.size() - in_pos) * sizeof(wchar_t));
        return out;
    }
  }
}

std::wstring widen(const std::string& text, const std::locale& locale) {
  if (text.empty()) return std::wstring();
  const WideFacet& facet = std::use_facet<WideFacet>(locale);
  std::mbstate_t state = std::mbstate_t();
  std::wstring out(text.size(), L'\0');
  const char* const begin = text.data();
  const char* const end = begin + text.size();
  size_t in_pos = 0;
  size_t out_pos = 0;
  for (;;) {
    const char* from_next = begin + in_pos;
    wchar_t* to_next = &out[0] + out_pos;
    const std::codecvt_base::result r = facet.in(state, begin + in_pos, end, from_next,
                                                 &out[0] + out_pos, &out[0] + out.size(), to_next);
    const bool progressed = from_next != begin + in_pos || to_next != &out[0] + out_pos;
    in_pos = from_next - begin;
    out_pos = to_next - &out[0];
    switch (r) {
      case std::codecvt_base::ok:
        out.resize(out_pos);
        return out;
      case std::codecvt_base::partial:
        if (!progressed) {
          out.resize(out_pos);
          return out;
        }
        out.resize(out.size() * 2);
        break;
      case std::codecvt_base::error:
        return out;
      case std::codecvt_base::noconv:
        out.resize(out_pos);
        for (size_t i = in_pos; i < text.size(); ++i)
          out.push_back(static_cast<wchar_t>(static_cast<unsigned char>(text[i])));
        return out;
    }
  }
}
