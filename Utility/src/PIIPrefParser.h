// Reads the personal-information notice flag out of the PII preference file:
// the text directly inside any element whose name or attributes contain
// "PIINOTICESHOWN" (in any case). The parse is event driven over the whole
// text at once; a malformed document keeps what was collected before the error.
#ifndef LUMETRY_UTILITY_PIIPREFPARSER_H_
#define LUMETRY_UTILITY_PIIPREFPARSER_H_

#include <memory>
#include <string>
#include <vector>

class PIIPrefParser {
 public:
  // Parses `text` at once; the text need not outlive the parser.
  explicit PIIPrefParser(const std::string& text);
  virtual ~PIIPrefParser();
  PIIPrefParser(const PIIPrefParser&) = delete;
  PIIPrefParser& operator=(const PIIPrefParser&) = delete;

  // The character data collected from matching elements, joined.
  const std::string& Value() const { return value_; }

 private:
  struct Handlers;  // the parser's callbacks

  // Open elements, innermost last: `name attr="value" ...`.
  std::vector<std::string> stack_;
  std::string value_;
};

// The whole text of the PII preference file with its parser.
class PIINoticeAccess {
 public:
  explicit PIINoticeAccess(const std::string& text);
  virtual ~PIINoticeAccess();
  PIINoticeAccess(const PIINoticeAccess&) = delete;
  PIINoticeAccess& operator=(const PIINoticeAccess&) = delete;

  // The parser's collected value ("" when nothing matched).
  void GetValue(std::string* value) const;

 private:
  std::string text_;
  std::unique_ptr<PIIPrefParser> parser_;  // made from text_; owned
};

#endif  // LUMETRY_UTILITY_PIIPREFPARSER_H_
