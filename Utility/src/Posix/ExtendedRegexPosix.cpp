// Linux binding of ExtendedRegex.h: the C library's regcomp/regexec.
#include <regex.h>

#include "ExtendedRegex.h"

struct ExtendedRegex::Compiled {
  regex_t regex;
};

ExtendedRegex::ExtendedRegex(const std::string& expression) : compiled_(new Compiled) {
  if (::regcomp(&compiled_->regex, expression.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
    compiled_.reset();
  }
}

ExtendedRegex::~ExtendedRegex() {
  if (compiled_) ::regfree(&compiled_->regex);
}

bool ExtendedRegex::IsValid() const { return compiled_ != nullptr; }

bool ExtendedRegex::Matches(const std::string& text) const {
  return compiled_ && ::regexec(&compiled_->regex, text.c_str(), 0, nullptr, 0) == 0;
}
