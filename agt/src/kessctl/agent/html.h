// Text as a page of HTML may hold it.
#pragma once

#include <string>
#include <string_view>

namespace kessctl {

// `text` as content or as a quoted attribute: what HTML reads as its own is written otherwise, and
// bytes that are not ASCII, which need not be UTF-8, as \xHH.
std::string html(std::string_view text);

// "<name>text</name>", the text escaped; `kind` is its class, empty for none.
std::string element(const char* name, const char* kind, std::string_view text);

} // namespace kessctl
