// The attempt ledger's file format and bookkeeping; see AttemptLedger.h.
#include "AttemptLedger.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <utility>
#include <vector>

#include "FileIO.h"
#include "SpoolScan.h"

namespace Courier {
namespace {

// A decimal number that fills the whole of `text` and fits `max`.
bool ParseNumber(const std::string& text, std::int64_t max, std::int64_t* out) {
  if (text.empty() || text.size() > 19 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  errno = 0;
  const long long value = std::strtoll(text.c_str(), nullptr, 10);
  if (errno != 0 || value > max) return false;
  *out = value;
  return true;
}

}  // namespace

AttemptLedger AttemptLedger::Load(const std::string& path) {
  AttemptLedger ledger;
  ledger.path_ = path;
  std::string text;
  if (FileIO::ReadFile(path, kMaxFileBytes, &text) == FileIO::ReadStatus::kOk) ledger.Parse(text);
  return ledger;
}

void AttemptLedger::Parse(const std::string& text) {
  constexpr std::int64_t kMaxTime = std::numeric_limits<std::int64_t>::max() / 2;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line) && entries_.size() < kMaxEntries) {
    const auto first = line.find(' ');
    if (first == std::string::npos) continue;
    const std::string head = line.substr(0, first);
    std::int64_t number = 0;
    if (head == "notbefore") {
      if (ParseNumber(line.substr(first + 1), kMaxTime, &number)) notBefore_ = number;
      continue;
    }
    const auto second = line.find(' ', first + 1);
    if (second == std::string::npos) continue;
    std::int64_t when = 0;
    const std::string name = line.substr(second + 1);
    if (!ParseNumber(head, std::numeric_limits<std::uint32_t>::max(), &number) ||
        !ParseNumber(line.substr(first + 1, second - first - 1), kMaxTime, &when) ||
        !IsUsageLogName(name)) {
      continue;
    }
    entries_[name] = Attempts{static_cast<std::uint32_t>(number), when};
  }
}

const Attempts* AttemptLedger::Find(const std::string& name) const {
  const auto it = entries_.find(name);
  return it == entries_.end() ? nullptr : &it->second;
}

std::uint32_t AttemptLedger::RecordFailure(const std::string& name, std::int64_t now) {
  Attempts& attempts = entries_[name];
  if (attempts.failures < std::numeric_limits<std::uint32_t>::max()) ++attempts.failures;
  attempts.lastFailure = now;
  changed_ = true;
  return attempts.failures;
}

void AttemptLedger::Forget(const std::string& name) {
  if (entries_.erase(name) > 0) changed_ = true;
}

void AttemptLedger::KeepOnly(const std::set<std::string>& present) {
  for (auto it = entries_.begin(); it != entries_.end();) {
    if (present.count(it->first) == 0) {
      it = entries_.erase(it);
      changed_ = true;
    } else {
      ++it;
    }
  }
}

void AttemptLedger::SetNotBefore(std::int64_t when) {
  if (when != notBefore_) {
    notBefore_ = when;
    changed_ = true;
  }
}

std::string AttemptLedger::Serialize() const {
  std::vector<std::pair<std::string, Attempts>> kept(entries_.begin(), entries_.end());
  if (kept.size() > kMaxEntries) {
    std::stable_sort(kept.begin(), kept.end(), [](const auto& a, const auto& b) {
      return a.second.lastFailure > b.second.lastFailure;
    });
    kept.resize(kMaxEntries);
    std::sort(kept.begin(), kept.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
  }
  std::ostringstream out;
  if (notBefore_ > 0) out << "notbefore " << notBefore_ << '\n';
  for (const auto& [name, attempts] : kept) {
    out << attempts.failures << ' ' << attempts.lastFailure << ' ' << name << '\n';
  }
  return out.str();
}

bool AttemptLedger::SaveIfChanged() {
  if (!changed_) return true;
  const std::string text = Serialize();
  if (path_.empty() || !FileIO::ReplaceFile(path_, text.data(), text.size())) return false;
  changed_ = false;
  return true;
}

}  // namespace Courier
