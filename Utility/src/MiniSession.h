// The writer of one crash usage log: a ten-element usage document (start,
// two groups of records, end) written fragment by fragment into the
// uploader's log directory, as plain XML (".xml") or scrambled with ROT47
// behind a fixed 20-byte marker (".rdy"). The file carries its final name
// from the first byte and is held under an exclusive lock while open, so two
// processes never write the same session at once. Each step leaves a trace in
// the "LogSession" diagnostic log.
#ifndef LUMETRY_UTILITY_MINISESSION_H_
#define LUMETRY_UTILITY_MINISESSION_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "ExclusiveFile.h"
#include "UsageDoc.h"

class MiniSession {
 public:
  // Written unscrambled as the first bytes of every scrambled file.
  static constexpr const char kScrambleMarker[] = "K-Q$mw#$zRTd8pofupin";
  static constexpr std::size_t kScrambleMarkerLength = 20;

  // Copies the values; opens nothing. `logDir` is the directory the file will
  // be written to (it is never created here).
  MiniSession(const std::string& logDir, const std::string& productFamily,
              const std::string& productName, const std::string& sessionId,
              const std::string& logNameKey, bool scramble);
  MiniSession(const MiniSession&) = delete;
  MiniSession& operator=(const MiniSession&) = delete;
  // Closes the file (and so releases its lock).
  ~MiniSession();

  // Writes the whole crash document: the session start, group "Lumetry" /
  // "Crash" / "Session" with ProductFamily and ProductName, group "AppExit" /
  // "Crash" / "ExitInfo" with ExitType, CrashProductName, CrashProductFamily
  // and MachineID, the session end. Always 0: a file that cannot be written
  // is left unwritten, never reported.
  std::int32_t CreateCrashFile(const std::string& machineId, const std::string& crashProductFamily,
                               const std::string& crashProductName);

  // One fragment each, handed to Write without looking at its result.
  // NewGroup returns the number of the new group; the others return 0.
  std::int32_t StartSession();
  std::int32_t NewGroup(const std::string& category, const std::string& subcategory,
                        const std::string& name, const std::string& doc);
  std::int32_t DataRec(std::int32_t group, const std::string& name, const std::string& data);
  std::int32_t EndSession();

  // Appends the C string `text`, opening the file first when it is not open.
  //   0  written (a failing write on an open file is not reported). Text
  //      that is not valid UTF-8 is written as StringUtil::RepairUTF8 makes
  //      it: each stray byte becomes the Latin-1 character of its value, so
  //      every document is valid UTF-8 and no record is dropped.
  //  -1  `text` is null
  //  -2  the file could not be opened (missing directory, no permission, a
  //      symbolic link in its place, or its lock held elsewhere)
  //  -3  no file handle at write time, or the fragment could not be
  //      prepared (out of memory)
  // After a failed open the path field holds the attempted file path, so the
  // next attempt appends the file name to it again and fails as well: a
  // session whose first open fails stays entirely unwritten.
  std::int32_t Write(const char* text);

  // The directory given at construction until the first open attempt, then
  // the full path of the log file.
  const std::string& path() const { return path_; }

  // ROT47 over the C string `text` (bytes 33..126 rotate by 47, all others
  // stay), at most 2^31-1 bytes. Null, or no memory for the copy, gives "".
  static std::string ScrambleText(const char* text);
  // ROT47 over every byte of `bytes` ("" when out of memory). ROT47 is its own
  // inverse, so this also scrambles; named for readers of scrambled files,
  // which drop the marker and unscramble the rest.
  static std::string UnscrambleText(const std::string& bytes);

 private:
  void MakeFilePath();
  std::int32_t WriteFileMarker();

  std::string path_;
  std::string productFamily_;
  std::string productName_;
  std::string sessionId_;
  std::string logNameKey_;
  bool scramble_;
  UsageDoc::Counters counters_;
  ExclusiveFile file_;
};

#endif  // LUMETRY_UTILITY_MINISESSION_H_
