// Where the uploader says what it decided: every line goes to the diagnostic
// log (when that is switched on) and, with --verbose, to standard error as
// "LogCourier2: <text>". By default the program prints nothing.
#ifndef LUMETRY_UPLOADER_REPORTER_H_
#define LUMETRY_UPLOADER_REPORTER_H_

#include <cstdint>
#include <ostream>
#include <string>

namespace Courier {

class Reporter {
 public:
  // `err` (not owned) receives the lines when `verbose`; may be null.
  Reporter(bool verbose, std::ostream* err) : verbose_(verbose), err_(err) {}

  // One decision; `source` is the caller's source label ("Uploader/Pass"),
  // `line` its line, as the diagnostic log's position.
  void Say(const std::string& text, const char* source, std::int32_t line);

 private:
  bool verbose_;
  std::ostream* err_;
};

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_REPORTER_H_
