// The status view; see StatusView.h. Everything is read the way a pass reads
// it (same configuration, ledger, gates and rules), but evaluated in memory.
#include "StatusView.h"

#include <ctime>
#include <nlohmann/json.hpp>
#include <sstream>

#include "AttemptLedger.h"
#include "FileIO.h"
#include "FileUtil.h"
#include "Gates.h"
#include "LockTable.h"
#include "Mac/LogCourUtilsMac.h"
#include "RuntimePlaces.h"
#include "SettingsFile.h"
#include "SpoolScan.h"
#include "UploaderConfig.h"
#include "UploaderStatus.h"
#include "Uploads.h"

namespace Courier {
namespace {

constexpr std::size_t kLastPassCap = std::size_t{64} * 1024;

std::string Date(std::int64_t when) {
  if (when <= 0) return "";
  const time_t t = static_cast<time_t>(when);
  struct tm parts;
  gmtime_r(&t, &parts);
  char text[32];
  return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts));
}

// The wake date of the item of `name` while the server pauses it, else "".
std::string PausedUntil(SettingsFile& items, const std::string& name) {
  std::string family;
  std::string item;
  if (!ItemOfName(name, &family, &item)) return "";
  UploaderStatus status = UploaderStatus::Active;
  Uploader::CheckItemHibernation(family, item, items, "hibernate", &status);
  if (status != UploaderStatus::Hibernate) return "";
  const std::string value = items.GetValue("hibernate", family + "_" + item);
  return value.substr(value.find('|') + 1);
}

}  // namespace

std::string LastPassPath(const std::string& configPath) {
  if (configPath.empty()) return "";
  return FileUtil::JoinPath(FileUtil::ParentDirectory(configPath), Places::kLastPassName);
}

void RecordLastPass(const std::string& configPath, std::int64_t when, const std::string& summary) {
  const std::string path = LastPassPath(configPath);
  const std::string text = "time " + std::to_string(when) + "\nsummary " + summary + "\n";
  if (!path.empty()) FileIO::ReplaceFile(path, text.data(), text.size());
}

StatusReport CollectStatus(std::int64_t now) {
  StatusReport report;
  report.now = now;
  report.spool = GetUploaderLogDir();
  const std::string configPath = Uploader::GetUploaderConfigPath();
  SettingsFile settings;
  if (!configPath.empty()) settings.Load(configPath);
  UploaderConfig config;
  SettingsFile scratch = settings;  // the readers drop expired pauses, in memory only
  Uploader::ReadUploaderConfig(scratch, &config);
  report.serverUrl = config.serverUrl;
  UploaderStatus status = UploaderStatus::Active;
  Uploader::ReadUploaderStatus(scratch, "ulog", &status);
  report.status = Uploader::StatusToString(status);
  if (status == UploaderStatus::Hibernate)
    report.wakeDate = settings.GetValue("ulog", "wakeupdate");
  report.privacyGate = PrivacyGateReason();

  const AttemptLedger ledger = AttemptLedger::Load(
      configPath.empty()
          ? ""
          : FileUtil::JoinPath(FileUtil::ParentDirectory(configPath), Places::kAttemptLedgerName));
  if (ledger.notBefore() > now) report.retryAfter = ledger.notBefore();
  const LockTable locks = LockTable::Read();
  for (const SpoolEntry& entry : ScanSpool(report.spool)) {
    SpoolFileStatus file;
    file.name = entry.name;
    file.bytes = entry.size;
    file.modified = entry.mtimeNs / 1000000000;
    file.locked = locks.IsLocked(entry.device, entry.inode);
    if (const Attempts* attempts = ledger.Find(entry.name)) {
      file.failures = attempts->failures;
      const std::int64_t next =
          attempts->lastFailure + static_cast<std::int64_t>(config.retryInterval) * 60;
      if (attempts->failures > 0 && next > now) file.nextTry = next;
    }
    file.pausedUntil = PausedUntil(scratch, entry.name);
    report.files.push_back(std::move(file));
  }

  std::string library;
  if (FileUtil::GetUserLibraryDirectory(&library)) {
    report.sessionDir = library + Places::kSessionInfoSubdir;
    report.sessions = CountSessionFiles(library);
  }
  std::string last;
  if (FileIO::ReadFile(LastPassPath(configPath), kLastPassCap, &last) == FileIO::ReadStatus::kOk) {
    std::istringstream lines(last);
    for (std::string line; std::getline(lines, line);) {
      if (line.rfind("time ", 0) == 0) report.lastPass = std::atoll(line.c_str() + 5);
      if (line.rfind("summary ", 0) == 0) report.lastSummary = line.substr(8);
    }
  }
  return report;
}

void PrintStatusText(const StatusReport& r, std::ostream& out) {
  std::uint64_t bytes = 0;
  for (const SpoolFileStatus& f : r.files) bytes += f.bytes;
  out << "Spool: " << r.spool << "\n  " << r.files.size() << " usage logs, " << bytes << " bytes";
  if (!r.files.empty()) out << ", oldest " << Date(r.files.front().modified);
  out << "\n";
  for (const SpoolFileStatus& f : r.files) {
    out << "  " << f.name << ": " << f.bytes << " bytes";
    if (f.failures > 0) out << ", " << f.failures << " failed attempts";
    if (f.nextTry > 0) out << ", next try " << Date(f.nextTry);
    if (f.locked) out << ", locked (still being written, or being sent)";
    if (!f.pausedUntil.empty()) out << ", item paused until " << f.pausedUntil;
    out << "\n";
  }
  out << "Sending: "
      << (r.privacyGate.empty() ? "allowed by the privacy settings" : "no: " + r.privacyGate)
      << "\nStatus: " << r.status << (r.wakeDate.empty() ? "" : " until " + r.wakeDate) << "\n";
  if (r.retryAfter > 0) out << "Retry-After: no upload before " << Date(r.retryAfter) << "\n";
  out << "Server: " << r.serverUrl << "\nSessions: " << r.sessionDir << "\n  " << r.sessions.live
      << " live, " << r.sessions.orphaned << " orphaned (swept into crash logs by the next pass)\n"
      << "Last pass: "
      << (r.lastPass > 0 ? Date(r.lastPass) + ": " + r.lastSummary : "none recorded") << "\n";
}

void PrintStatusJson(const StatusReport& r, std::ostream& out) {
  nlohmann::json files = nlohmann::json::array();
  std::uint64_t bytes = 0;
  for (const SpoolFileStatus& f : r.files) {
    bytes += f.bytes;
    files.push_back({{"name", f.name},
                     {"bytes", f.bytes},
                     {"modified", f.modified},
                     {"failedAttempts", f.failures},
                     {"nextTry", f.nextTry},
                     {"locked", f.locked},
                     {"pausedUntil", f.pausedUntil}});
  }
  const nlohmann::json doc = {
      {"now", r.now},
      {"spool",
       {{"directory", r.spool},
        {"files", r.files.size()},
        {"bytes", bytes},
        {"oldest", r.files.empty() ? 0 : r.files.front().modified},
        {"logs", files}}},
      {"privacyGate", r.privacyGate},
      {"status", r.status},
      {"wakeDate", r.wakeDate},
      {"retryAfter", r.retryAfter},
      {"server", r.serverUrl},
      {"sessions",
       {{"directory", r.sessionDir}, {"live", r.sessions.live}, {"orphaned", r.sessions.orphaned}}},
      {"lastPass", {{"time", r.lastPass}, {"summary", r.lastSummary}}}};
  // Names are bytes: a name that is not UTF-8 is shown with replacement characters.
  out << doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
}

}  // namespace Courier
