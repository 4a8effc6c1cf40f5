// A compiled POSIX extended regular expression, matched without sub-matches.
// Used where the system matches texts against fixed patterns (server
// addresses, wildcard deletions). Linux binding: Posix/ExtendedRegexPosix.cpp.
#ifndef LUMETRY_UTILITY_EXTENDEDREGEX_H_
#define LUMETRY_UTILITY_EXTENDEDREGEX_H_

#include <memory>
#include <string>

class ExtendedRegex {
 public:
  // Compiles `expression`; IsValid() tells whether that worked.
  explicit ExtendedRegex(const std::string& expression);
  ~ExtendedRegex();
  ExtendedRegex(const ExtendedRegex&) = delete;
  ExtendedRegex& operator=(const ExtendedRegex&) = delete;

  bool IsValid() const;
  // True when the expression matches anywhere in `text` (case-sensitive).
  // False for an invalid expression.
  bool Matches(const std::string& text) const;

 private:
  struct Compiled;
  std::unique_ptr<Compiled> compiled_;
};

#endif  // LUMETRY_UTILITY_EXTENDEDREGEX_H_
