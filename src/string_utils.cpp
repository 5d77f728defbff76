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

// The conversion loop shared by narrow and widen. `convert` is the facet's
// out or in; `initial` the first size of the buffer; `raw` appends the
// unconverted rest of the input for a facet that does no conversion.
template <typename From, typename To, typename Convert, typename Raw>
std::basic_string<To> ConvertText(const std::basic_string<From>& text, size_t initial,
                                  Convert convert, Raw raw) {
  std::mbstate_t state = std::mbstate_t();
  std::basic_string<To> out(initial, To());
  const From* const begin = text.data();
  const From* const end = begin + text.size();
  size_t in_pos = 0;
  size_t out_pos = 0;
  for (;;) {
    const From* from_next = begin + in_pos;
    To* to_next = &out[0] + out_pos;
    const std::codecvt_base::result r = convert(state, begin + in_pos, end, from_next,
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
        raw(&out, begin + in_pos, end);
        return out;
    }
  }
}

}  // namespace

std::string narrow(const std::wstring& text, const std::locale& locale) {
  if (text.empty()) return std::string();
  const WideFacet& facet = std::use_facet<WideFacet>(locale);
  return ConvertText<wchar_t, char>(
      text, text.size() * static_cast<size_t>(facet.max_length()),
      [&facet](std::mbstate_t& state, const wchar_t* from, const wchar_t* from_end,
               const wchar_t*& from_next, char* to, char* to_end, char*& to_next) {
        return facet.out(state, from, from_end, from_next, to, to_end, to_next);
      },
      [](std::string* out, const wchar_t* rest, const wchar_t* rest_end) {
        out->append(reinterpret_cast<const char*>(rest),
                    static_cast<size_t>(rest_end - rest) * sizeof(wchar_t));
      });
}

std::wstring widen(const std::string& text, const std::locale& locale) {
  if (text.empty()) return std::wstring();
  const WideFacet& facet = std::use_facet<WideFacet>(locale);
  return ConvertText<char, wchar_t>(
      text, text.size(),
      [&facet](std::mbstate_t& state, const char* from, const char* from_end,
               const char*& from_next, wchar_t* to, wchar_t* to_end, wchar_t*& to_next) {
        return facet.in(state, from, from_end, from_next, to, to_end, to_next);
      },
      [](std::wstring* out, const char* rest, const char* rest_end) {
        for (; rest != rest_end; ++rest)
          out->push_back(static_cast<wchar_t>(static_cast<unsigned char>(*rest)));
      });
}
