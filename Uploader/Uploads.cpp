// The upload loop; see Uploads.h. A file is locked before anything is
// decided about it and stays locked until it is sent, deleted or left, so a
// crash processor can never be writing a file that is being sent or deleted.
#include "Uploads.h"

#include "AttemptLedger.h"
#include "PassContext.h"
#include "Reporter.h"
#include "RetryAfter.h"
#include "SettingsFile.h"
#include "UploaderStatus.h"

namespace Courier {
namespace {

const char kSource[] = "Uploader/Uploads";

std::string StatusText(const HttpAnswer& answer) { return std::to_string(answer.status); }

class UploadRun {
 public:
  UploadRun(PassContext& context, AttemptLedger& ledger) : context_(context), ledger_(ledger) {
    if (!context_.configPath.empty()) items_.Load(context_.configPath);
    itemsBefore_ = items_.entries();
  }

  ~UploadRun() {
    // Expired item pauses were dropped in memory; keep the file in step.
    if (!context_.settings.dryRun && !context_.configPath.empty() &&
        items_.entries() != itemsBefore_) {
      items_.Save(context_.configPath);
    }
  }
  UploadRun(const UploadRun&) = delete;
  UploadRun& operator=(const UploadRun&) = delete;

  void Send(const SpoolEntry& entry);

 private:
  void Say(const std::string& text, std::int32_t line) { context_.report.Say(text, kSource, line); }
  void Save() {
    if (!context_.settings.dryRun && !ledger_.SaveIfChanged()) {
      Say("could not write the attempt ledger", __LINE__);
    }
  }
  bool IsPaused(const std::string& name);
  bool IsWaiting(const std::string& name) const;
  void Failed(SpoolFileLock& lock, const SpoolEntry& entry, const std::string& why);

  PassContext& context_;
  AttemptLedger& ledger_;
  SettingsFile items_;
  SettingsFile::Entries itemsBefore_;
};

bool UploadRun::IsPaused(const std::string& name) {
  std::string family;
  std::string item;
  if (!ItemOfName(name, &family, &item)) return false;
  UploaderStatus status = UploaderStatus::Active;
  Uploader::CheckItemHibernation(family, item, items_, "hibernate", &status);
  return status == UploaderStatus::Hibernate;
}

bool UploadRun::IsWaiting(const std::string& name) const {
  const Attempts* attempts = ledger_.Find(name);
  if (attempts == nullptr || attempts->failures == 0) return false;
  const std::int64_t interval = static_cast<std::int64_t>(context_.config.retryInterval) * 60;
  const std::int64_t since = context_.now - attempts->lastFailure;
  return since >= 0 && since < interval;  // a clock set back does not hold a file forever
}

void UploadRun::Failed(SpoolFileLock& lock, const SpoolEntry& entry, const std::string& why) {
  const std::uint32_t failures = ledger_.RecordFailure(entry.name, context_.now);
  if (failures >= context_.config.maxRetries) {
    if (lock.Remove()) {
      ledger_.Forget(entry.name);
      ++context_.summary.gaveUp;
      Say("gave up " + entry.name + " after " + std::to_string(failures) + " failed attempts (" +
              why + "), deleted",
          __LINE__);
    } else {
      Say("gave up " + entry.name + " but could not delete it", __LINE__);
    }
  } else {
    ++context_.summary.failed;
    Say("attempt " + std::to_string(failures) + " of " +
            std::to_string(context_.config.maxRetries) + " for " + entry.name + " failed (" + why +
            "), kept",
        __LINE__);
  }
  Save();
}

void UploadRun::Send(const SpoolEntry& entry) {
  if (!context_.networkOpen) return;
  if (ledger_.notBefore() > context_.now) {
    context_.CloseNetwork("the server asked to wait " +
                          std::to_string(ledger_.notBefore() - context_.now) + " more seconds");
    return;
  }
  SpoolFileLock lock = SpoolFileLock::TryLock(entry);
  if (!lock.IsHeld()) {
    ++context_.summary.busy;
    Say(entry.name + " is still being written (or cannot be opened), left for a later pass",
        __LINE__);
    return;
  }
  if (IsPaused(entry.name)) {
    ++context_.summary.paused;
    Say(entry.name + ": its item is paused by the server, kept", __LINE__);
    return;
  }
  if (IsWaiting(entry.name)) {
    ++context_.summary.waiting;
    Say(entry.name + ": retry interval not over yet, kept", __LINE__);
    return;
  }
  const std::uint64_t size = lock.Size();
  const std::uint64_t cap = static_cast<std::uint64_t>(context_.config.maxDiskSpace) * 1024 * 1024;
  if (size > cap) {
    Say(entry.name + " is larger than the spool budget, left alone", __LINE__);
    return;
  }
  if (context_.settings.dryRun) {
    Say("dry run: would send " + entry.name + " (" + std::to_string(size) + " bytes)", __LINE__);
    return;
  }
  HttpAnswer answer;
  if (!context_.Request(context_.config.uploadUrl, kMaxUploadAnswerBytes, &answer, &entry.name,
                        &lock)) {
    return;
  }
  if (answer.delivery == Delivery::kUnreachable) {
    // Offline is not the file's fault: no attempt is counted.
    context_.CloseNetwork("the server cannot be reached (" + answer.error + ")");
    return;
  }
  if (answer.delivery == Delivery::kBroken) {
    Failed(lock, entry, "no answer: " + answer.error);
    return;
  }
  switch (VerdictForStatus(answer.status)) {
    case UploadVerdict::kAccepted:
      if (lock.Remove()) {
        ++context_.summary.sent;
        Say("sent " + entry.name + " (" + StatusText(answer) + "), deleted", __LINE__);
      } else {
        Say("sent " + entry.name + " but could not delete it", __LINE__);
      }
      ledger_.Forget(entry.name);
      Save();
      break;
    case UploadVerdict::kRefused:
      if (lock.Remove()) {
        ++context_.summary.refused;
        Say("the server refused " + entry.name + " for good (" + StatusText(answer) + "), deleted",
            __LINE__);
      }
      ledger_.Forget(entry.name);
      Save();
      break;
    case UploadVerdict::kRetry: {
      Failed(lock, entry, "answer " + StatusText(answer));
      std::int64_t until = 0;
      if ((answer.status == 429 || answer.status == 503) &&
          RetryAfterUntil(answer.retryAfter, context_.now, &until)) {
        ledger_.SetNotBefore(until);
        Save();
        context_.CloseNetwork("the server asked to retry after " + answer.retryAfter);
      }
      break;
    }
  }
}

}  // namespace

UploadVerdict VerdictForStatus(long status) {
  if (status >= 200 && status <= 299) return UploadVerdict::kAccepted;
  if (status >= 400 && status <= 499 && status != 408 && status != 429) {
    return UploadVerdict::kRefused;
  }
  return UploadVerdict::kRetry;
}

bool ItemOfName(const std::string& name, std::string* family, std::string* item) {
  const auto first = name.find('_');
  const auto second = first == std::string::npos ? first : name.find('_', first + 1);
  const auto third = second == std::string::npos ? second : name.find('_', second + 1);
  if (third == std::string::npos) return false;
  *family = name.substr(first + 1, second - first - 1);
  *item = name.substr(second + 1, third - second - 1);
  return true;
}

void UploadSpool(PassContext& context, const std::vector<SpoolEntry>& entries,
                 AttemptLedger& ledger) {
  UploadRun run(context, ledger);
  for (const SpoolEntry& entry : entries) {
    if (!context.networkOpen) break;
    run.Send(entry);
  }
}

}  // namespace Courier
