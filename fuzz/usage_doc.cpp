// The usage document's escaping and scrambling, and the writer's handling
// of foreign bytes. Input: a session id, a line feed, a machine identity,
// a line feed, a value. Checked: an escaped value holds none of the
// characters the escaping replaces and is valid UTF-8; ROT47 is
// its own inverse and leaves bytes outside 33..126 alone; a crash file
// written with the id and identity decodes to valid UTF-8.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "MiniSession.h"
#include "StringUtil.h"
#include "UsageDoc.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string id;
  std::string rest;
  fuzz_support::SplitOnce(fuzz_support::Bytes(data, size), '\n', &id, &rest);
  std::string machine;
  std::string value;
  fuzz_support::SplitOnce(rest, '\n', &machine, &value);

  // The value is taken as a C string.
  const std::string escaped = UsageDoc::EscapeAttributeValue(value);
  const std::string text = value.substr(0, value.find('\0'));
  FUZZ_CHECK(escaped.find_first_of("<>\"'\\") == std::string::npos);
  if (text.empty() || !StringUtil::IsValidUTF8(text)) FUZZ_CHECK(escaped == "NOVALUE");
  FUZZ_CHECK(StringUtil::IsValidUTF8(escaped));

  const std::string scrambled = MiniSession::UnscrambleText(value);
  FUZZ_CHECK(scrambled.size() == value.size());
  FUZZ_CHECK(MiniSession::UnscrambleText(scrambled) == value);
  for (std::size_t i = 0; i < value.size(); ++i) {
    const auto b = static_cast<unsigned char>(value[i]);
    if (b < 33 || b > 126) FUZZ_CHECK(scrambled[i] == value[i]);
  }

  // The writer: an id from a file name holds neither "/" nor "_" nor NUL.
  const std::string dir = fuzz_support::PrivateHome() + "/logs";
  FUZZ_CHECK(fuzz_support::WriteBytes(dir + "/.keep", ""));
  fuzz_support::EmptyDirectory(dir);
  if (id.empty() || id.size() > 200 ||
      id.find_first_of(std::string("/_\0", 3)) != std::string::npos) {
    return 0;
  }
  const std::string plain_machine = machine.substr(0, machine.find('\0'));
  MiniSession(dir, "LumetryQX", "AppCrash", id, "K", false)
      .CreateCrashFile(plain_machine, "Family", "Name");
  std::string document;
  FUZZ_CHECK(
      fuzz_support::ReadBytes(dir + "/ulog_LumetryQX_AppCrash_K_" + id + "_0.xml", &document));
  FUZZ_CHECK(StringUtil::IsValidUTF8(document));
  FUZZ_CHECK(document.find("</UsageDoc>\n") != std::string::npos);
  if (StringUtil::IsValidUTF8(id))
    FUZZ_CHECK(document.find("id=\"" + id + "\"") != std::string::npos);
  return 0;
}
