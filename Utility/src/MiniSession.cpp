// MiniSession: builds the crash document's fragments with the usage-document
// text of UsageDoc.h and appends them to one locked file. No error leaves
// this file; the trace calls and their line numbers are part of the
// diagnostic log's contract with support tools, so they are fixed.
#include "MiniSession.h"

#include <cstdint>
#include <limits>

#include "FileUtil.h"
#include "Guarded.h"
#include "Logger.h"
#include "RuntimePlaces.h"
#include "SafeStr.h"
#include "StringUtil.h"

namespace {

constexpr const char* kTraceSource = "Utility/src/MiniSession";
constexpr std::size_t kMaxTextLength =
    static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max());

// Best effort: a trace that cannot be built (out of memory) is dropped.
void Trace(const char* text, std::int32_t line) {
  GuardedRun([&] { Logger::Instance(Places::kSessionLoggerName).Debug(text, kTraceSource, line); });
}

std::string Rot47(std::string bytes) {
  for (char& c : bytes) {
    const auto b = static_cast<unsigned char>(c);
    if (b >= 33 && b <= 126) c = static_cast<char>(b + 47 <= 126 ? b + 47 : b - 47);
  }
  return bytes;
}

}  // namespace

MiniSession::MiniSession(const std::string& logDir, const std::string& productFamily,
                         const std::string& productName, const std::string& sessionId,
                         const std::string& logNameKey, bool scramble)
    : path_(logDir),
      productFamily_(productFamily),
      productName_(productName),
      sessionId_(sessionId),
      logNameKey_(logNameKey),
      scramble_(scramble) {}

MiniSession::~MiniSession() = default;

std::int32_t MiniSession::CreateCrashFile(const std::string& machineId,
                                          const std::string& crashProductFamily,
                                          const std::string& crashProductName) {
  Trace("MiniSession::CreateCrashFile", 214);
  // Only building a fragment may fail (out of memory), and then the rest of
  // the document is lost.
  GuardedRun([&] {
    StartSession();
    const std::int32_t session = NewGroup("Lumetry", "Crash", "Session", "");
    DataRec(session, "ProductFamily", productFamily_);
    DataRec(session, "ProductName", productName_);
    const std::int32_t exitInfo = NewGroup("AppExit", "Crash", "ExitInfo", "");
    DataRec(exitInfo, "ExitType", "Crash");
    DataRec(exitInfo, "CrashProductName", crashProductName);
    DataRec(exitInfo, "CrashProductFamily", crashProductFamily);
    DataRec(exitInfo, "MachineID", machineId);
    EndSession();
  });
  return 0;
}

// The fragment writers are guarded by CreateCrashFile, their one caller.
std::int32_t MiniSession::StartSession() {
  const std::int32_t seq = counters_.NextSeq();
  Write(UsageDoc::StartFragment(sessionId_, UsageDoc::CurrentTime(), seq).c_str());
  return 0;
}

std::int32_t MiniSession::NewGroup(const std::string& category, const std::string& subcategory,
                                   const std::string& name, const std::string& doc) {
  const std::int32_t group = counters_.NextGroup();
  const std::int32_t seq = counters_.NextSeq();
  Write(UsageDoc::NewGroupFragment(category, subcategory, name, UsageDoc::CurrentTime(), group, doc,
                                   seq)
            .c_str());
  return group;
}

std::int32_t MiniSession::DataRec(std::int32_t group, const std::string& name,
                                  const std::string& data) {
  const std::int32_t seq = counters_.NextSeq();
  Write(UsageDoc::DataRecFragment(UsageDoc::CurrentTime(), group, name, data, seq).c_str());
  return 0;
}

std::int32_t MiniSession::EndSession() {
  const std::int32_t seq = counters_.NextSeq();
  Write(UsageDoc::EndFragment(sessionId_, UsageDoc::CurrentTime(), seq).c_str());
  return 0;
}

std::int32_t MiniSession::Write(const char* text) {
  if (text == nullptr) return -1;
  // Only an allocation can fail here; the fragment is then lost.
  return Guarded<std::int32_t>(-3, [&]() -> std::int32_t {
    if (!file_.IsOpen()) {
      MakeFilePath();
      Trace(("MiniSession::Write: " + path_).c_str(), 176);
      file_ = ExclusiveFile::OpenExclusive(path_);
      if (!file_.IsOpen()) {
        Trace("MiniSession::Write", 182);
        return -2;
      }
      WriteFileMarker();
    }
    // A handle that was opened stays open until destruction; the check keeps
    // the traced -3 answer for a handle that is gone all the same.
    if (!file_.IsOpen()) {
      Trace("MiniSession::Write", 195);
      return -3;
    }
    // Bytes that are not valid UTF-8 (only a session id or machine identity
    // can carry them) are taken as Latin-1 characters, so every document is
    // well-formed UTF-8 and nothing of the record is dropped.
    std::string bytes(text, SafeStr::StrNLen(text, kMaxTextLength));
    if (!StringUtil::IsValidUTF8(bytes)) bytes = StringUtil::RepairUTF8(bytes);
    if (scramble_) {
      const std::string scrambled = Rot47(bytes);
      file_.Write(scrambled.data(), scrambled.size());
      Trace("MiniSession::Write", 201);
    } else {
      file_.Write(bytes.data(), bytes.size());
    }
    return 0;
  });
}

void MiniSession::MakeFilePath() {
  // Starts from the path field itself, which after a failed open already
  // holds a file path: the next attempt then goes one level deeper.
  path_ = FileUtil::WithTrailingSeparator(path_) + "ulog_" + productFamily_ + "_" + productName_ +
          "_" + logNameKey_ + "_" + sessionId_ + "_0" + (scramble_ ? ".rdy" : ".xml");
}

std::int32_t MiniSession::WriteFileMarker() {
  if (!scramble_) return 0;
  Trace("MiniSession::Write", 156);
  file_.Write(kScrambleMarker, kScrambleMarkerLength);
  return 0;
}

std::string MiniSession::ScrambleText(const char* text) {
  if (text == nullptr) return std::string();
  return Guarded(std::string(),
                 [&] { return Rot47(std::string(text, SafeStr::StrNLen(text, kMaxTextLength))); });
}

std::string MiniSession::UnscrambleText(const std::string& bytes) {
  return Guarded(std::string(), [&] { return Rot47(bytes); });
}
