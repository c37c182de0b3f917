// The message table: the texts of the library's messages in English and Chinese.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace korvalin_client::languages {

class Lang {
 public:
  // The language in use: "en" (default) or "cn" (Chinese). Read from $KORVALIN_LANG when
  // the program starts; a program may change it at any time before messages are built.
  std::string language;

  // The text of message `key` in the current language (English for a language without its
  // own table). Placeholders "{}" are filled by the caller with format(). An unknown key is
  // a KeyError naming it.
  std::string msg(std::string_view key) const;

  // Whether `key` is in the table.
  static bool has(std::string_view key);
};

// The library's message table.
extern Lang lang;

// Fills the "{}" placeholders of `text` from left to right with `args`. Extra placeholders
// stay as they are; extra arguments are ignored.
std::string format(std::string_view text, std::initializer_list<std::string> args);

}  // namespace korvalin_client::languages
