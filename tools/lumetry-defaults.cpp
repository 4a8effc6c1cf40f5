// lumetry-defaults: reads and changes the preference domains of the system
// from the command line, through the project's preference layer (the same
// files, lock and atomic replacement as the crash processor), so it is safe
// to use while other processes of the system run. Verbs: read, read-type,
// write, delete, export, import, domains, paths. Flags follow the platform's
// style, with one dash (-currentHost, -anyUser, -string, -int, -dict-add).
#include <getopt.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <string>
#include <vector>

#include "FileIO.h"
#include "PlatformPaths.h"
#include "PreferenceDomains.h"
#include "Preferences.h"
#include "ToolSupport.h"

namespace {

namespace ts = tool_support;
namespace pd = PreferenceDomains;

const char kToolName[] = "lumetry-defaults";

// Redirects the any-user scope (tests, staging trees).
const char kSystemDirVariable[] = "LUMETRY_SYSTEM_PREFS_DIR";

void PrintHelp() {
  std::cout << "Usage: " << kToolName
            << " [-currentHost] [-anyUser] VERB [ARGUMENTS]\n"
               "\n"
               "Verbs:\n"
               "  read [DOMAIN [KEY]]         print a domain, one value, or every domain\n"
               "  read-type DOMAIN KEY        print the kind of a value\n"
               "  write DOMAIN KEY -string S  store a string\n"
               "  write DOMAIN KEY -int N     store a signed 32-bit integer\n"
               "  write DOMAIN KEY -dict-add ENTRY (-string S | -int N)\n"
               "                              store one entry of the dictionary KEY\n"
               "  write DOMAIN KEY S          the same as -string S\n"
               "  delete DOMAIN [KEY]         remove one key, or the whole domain\n"
               "  export DOMAIN FILE|-        write the domain as an XML property list\n"
               "  import DOMAIN FILE|-        replace the domain with a property list\n"
               "                              (XML or binary, at most 1 MiB)\n"
               "  domains                     list the domains of the scope\n"
               "  paths [DOMAIN]              print the files of the four scopes and the\n"
               "                              HOST-ID of this machine\n"
               "\n"
               "Scope (default: the current user, any host):\n"
               "  -currentHost  the files of this machine (ByHost/<domain>.<HOST-ID>.plist)\n"
               "  -anyUser      the machine-wide directory instead of ~/Library/Preferences\n"
               "\n"
               "  -help, --help        show this help and exit\n"
               "  -version, --version  show the version and exit\n"
               "\n"
               "Exit status: 0 on success, 1 when a domain, key or file is missing or cannot\n"
               "be read or written, 2 on bad usage.\n";
}

struct Request {
  PrefUser user = PrefUser::kCurrentUser;
  PrefHost host = PrefHost::kAnyHost;
  std::vector<std::string> words;  // the verb and its arguments
  bool has_string = false;
  bool has_int = false;
  bool has_entry = false;
  std::string string_value;
  std::int32_t int_value = 0;
  std::string entry;
};

int Fail(const std::string& message) {
  ts::Complain(kToolName, message);
  return ts::kExitFailure;
}

std::string FileOf(const std::string& domain, const Request& r) {
  return PreferenceFilePath(domain, r.user, r.host);
}

bool ParseInt(const char* text, std::int32_t* out) {
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' ||
      value < std::numeric_limits<std::int32_t>::min() ||
      value > std::numeric_limits<std::int32_t>::max()) {
    return false;
  }
  *out = static_cast<std::int32_t>(value);
  return true;
}

// Checks the argument count of a verb: between `least` and `most` words
// after the verb itself.
bool Arity(const Request& r, std::size_t least, std::size_t most) {
  const std::size_t n = r.words.size() - 1;
  return n >= least && n <= most;
}

int Print(const std::string& text) {
  std::cout << text << "\n";
  return ts::kExitSuccess;
}

int ReadVerb(const Request& r) {
  if (r.words.size() == 1) {  // every domain of the scope
    std::vector<std::string> names;
    if (!pd::ListDomains(r.user, r.host, &names)) return Fail("cannot list the domains");
    PrefValue all = PrefValue::Dictionary();
    for (const std::string& name : names) {
      PrefValue domain;
      if (pd::CopyDomain(name, r.user, r.host, &domain)) all.SetItem(name, std::move(domain));
    }
    return Print(pd::Describe(all));
  }
  const std::string& domain = r.words[1];
  const std::string path = FileOf(domain, r);
  if (path.empty()) return Fail("'" + domain + "' is not a valid domain name");
  if (!pd::DomainExists(domain, r.user, r.host)) return Fail(ts::WithReason(path, ENOENT));
  PrefValue all;
  if (!pd::CopyDomain(domain, r.user, r.host, &all)) return Fail(ts::WithReason(path, errno));
  if (r.words.size() == 2) return Print(pd::Describe(all));
  const PrefValue value = all.Item(r.words[2]);
  if (value.IsNone()) return Fail(path + ": no key '" + r.words[2] + "'");
  if (r.words[0] == "read-type") return Print("Type is " + pd::KindName(value));
  return Print(pd::Describe(value));
}

int WriteVerb(const Request& r) {
  const std::string& domain = r.words[1];
  const std::string& key = r.words[2];
  const std::string path = FileOf(domain, r);
  if (path.empty()) return Fail("'" + domain + "' is not a valid domain name");
  bool done = false;
  if (r.has_entry) {
    const PrefValue current = CopyPreferenceValue(key, domain, r.user, r.host);
    if (!current.IsNone() && current.Kind() != kPrefDictionary) {
      return Fail(path + ": '" + key + "' holds a " + pd::KindName(current) + ", not a dictionary");
    }
    done =
        r.has_int
            ? SetPreferenceDictionaryNumber(key, r.entry, domain, r.int_value, r.user, r.host)
            : SetPreferenceDictionaryString(key, r.entry, domain, r.string_value, r.user, r.host);
  } else if (r.has_int) {
    done = SetPreferenceNumber(key, domain, r.int_value, r.user, r.host);
  } else {
    done = SetPreferenceString(key, domain, r.string_value, r.user, r.host);
  }
  if (!done) return Fail(path + ": cannot store '" + key + "' (invalid text or unwritable file)");
  return ts::kExitSuccess;
}

int DeleteVerb(const Request& r) {
  const std::string& domain = r.words[1];
  const std::string path = FileOf(domain, r);
  if (path.empty()) return Fail("'" + domain + "' is not a valid domain name");
  const bool whole = r.words.size() == 2;
  switch (whole ? pd::RemoveDomain(domain, r.user, r.host)
                : pd::RemoveKey(r.words[2], domain, r.user, r.host)) {
    case pd::EditResult::kDone:
      return ts::kExitSuccess;
    case pd::EditResult::kNotFound:
      return Fail(whole ? ts::WithReason(path, ENOENT) : path + ": no key '" + r.words[2] + "'");
    case pd::EditResult::kFailed:
      break;
  }
  return Fail(path + ": cannot be changed");
}

// The export replaces its target atomically: a failed export leaves an
// earlier one whole.
bool WriteFile(const std::string& path, const std::string& data, std::string* error) {
  errno = 0;
  if (FileIO::ReplaceFile(path, data.data(), data.size())) return true;
  *error = errno != 0 ? ts::WithReason(path, errno) : path + ": cannot be written";
  return false;
}

int ExportVerb(const Request& r) {
  const std::string& domain = r.words[1];
  const std::string& target = r.words[2];
  const std::string path = FileOf(domain, r);
  if (path.empty()) return Fail("'" + domain + "' is not a valid domain name");
  if (!pd::DomainExists(domain, r.user, r.host)) return Fail(ts::WithReason(path, ENOENT));
  PrefValue all;
  std::string xml;
  if (!pd::CopyDomain(domain, r.user, r.host, &all)) return Fail(ts::WithReason(path, errno));
  if (!pd::ToXml(all, &xml)) return Fail(path + ": cannot be converted to XML");
  if (target == "-") {
    ts::WriteStdout(xml);  // a failure is reported at exit
    return ts::kExitSuccess;
  }
  std::string error;
  return WriteFile(target, xml, &error) ? ts::kExitSuccess : Fail(error);
}

int ImportVerb(const Request& r) {
  const std::string& domain = r.words[1];
  const std::string& source = r.words[2];
  const std::string path = FileOf(domain, r);
  if (path.empty()) return Fail("'" + domain + "' is not a valid domain name");
  std::string bytes;
  std::string error;
  if (!ts::ReadFileCapped(source, ts::kSettingsFileCap, &bytes, &error)) return Fail(error);
  PrefValue parsed;
  if (!pd::FromPropertyList(bytes, &parsed) || parsed.Kind() != kPrefDictionary) {
    return Fail((source == "-" ? "standard input" : source) +
                ": not a property list holding a dictionary");
  }
  if (!pd::ReplaceDomain(domain, r.user, r.host, parsed)) return Fail(path + ": cannot be written");
  return ts::kExitSuccess;
}

int DomainsVerb(const Request& r) {
  std::vector<std::string> names;
  if (!pd::ListDomains(r.user, r.host, &names)) return Fail("cannot list the domains");
  for (const std::string& name : names) std::cout << name << "\n";
  return ts::kExitSuccess;
}

int PathsVerb(const Request& r) {
  const std::string domain = r.words.size() > 1 ? r.words[1] : "<domain>";
  if (PreferenceFilePath(domain, PrefUser::kAnyUser, PrefHost::kAnyHost).empty()) {
    return Fail("'" + domain + "' is not a valid domain name");
  }
  std::cout << "HOST-ID: " << Platform::GetHostId() << "\n"
            << "current user, any host: "
            << PreferenceFilePath(domain, PrefUser::kCurrentUser, PrefHost::kAnyHost) << "\n"
            << "current user, current host: "
            << PreferenceFilePath(domain, PrefUser::kCurrentUser, PrefHost::kCurrentHost) << "\n"
            << "any user, any host: "
            << PreferenceFilePath(domain, PrefUser::kAnyUser, PrefHost::kAnyHost) << "\n"
            << "any user, current host: "
            << PreferenceFilePath(domain, PrefUser::kAnyUser, PrefHost::kCurrentHost) << "\n";
  return ts::kExitSuccess;
}

// Checks the words and flags of the verb, then runs it.
int Dispatch(const Request& r) {
  if (r.words.empty()) return ts::UsageError(kToolName, "no verb given");
  const std::string& verb = r.words[0];
  const bool value_flags = r.has_string || r.has_int || r.has_entry;
  if (value_flags && verb != "write") {
    return ts::UsageError(kToolName, "-string, -int and -dict-add belong to 'write'");
  }
  if (verb == "read" && Arity(r, 0, 2)) return ReadVerb(r);
  if (verb == "read-type" && Arity(r, 2, 2)) return ReadVerb(r);
  if (verb == "delete" && Arity(r, 1, 2)) return DeleteVerb(r);
  if (verb == "export" && Arity(r, 2, 2)) return ExportVerb(r);
  if (verb == "import" && Arity(r, 2, 2)) return ImportVerb(r);
  if (verb == "domains" && Arity(r, 0, 0)) return DomainsVerb(r);
  if (verb == "paths" && Arity(r, 0, 1)) return PathsVerb(r);
  if (verb == "write") {
    if (r.has_string && r.has_int)
      return ts::UsageError(kToolName, "give -string or -int, not both");
    const bool typed = r.has_string || r.has_int;
    if (Arity(r, 2, 2) && typed) return WriteVerb(r);
    if (Arity(r, 3, 3) && !typed && !r.has_entry) {
      Request plain = r;
      plain.has_string = true;
      plain.string_value = r.words[3];
      plain.words.pop_back();
      return WriteVerb(plain);
    }
    return ts::UsageError(kToolName,
                          "usage: write DOMAIN KEY (-string S | -int N | -dict-add "
                          "ENTRY (-string S | -int N))");
  }
  const std::string known = " read read-type write delete export import domains paths ";
  if (known.find(" " + verb + " ") == std::string::npos) {
    return ts::UsageError(kToolName, "unknown verb '" + verb + "'");
  }
  return ts::UsageError(kToolName, "wrong number of arguments for '" + verb + "'");
}

int ToolMain(int argc, char* argv[]) {
  static const option kOptions[] = {
      {"currentHost", no_argument, nullptr, 'c'},    {"anyUser", no_argument, nullptr, 'a'},
      {"string", required_argument, nullptr, 's'},   {"int", required_argument, nullptr, 'i'},
      {"dict-add", required_argument, nullptr, 'd'}, {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},        {nullptr, 0, nullptr, 0},
  };
  Request r;
  opterr = 0;
  for (;;) {
    const int c = getopt_long_only(argc, argv, ":", kOptions, nullptr);
    if (c == -1) break;
    switch (c) {
      case 'c':
        r.host = PrefHost::kCurrentHost;
        break;
      case 'a':
        r.user = PrefUser::kAnyUser;
        break;
      case 's':
        r.has_string = true;
        r.string_value = optarg;
        break;
      case 'i':
        if (!ParseInt(optarg, &r.int_value)) {
          return ts::UsageError(
              kToolName, std::string("-int needs a signed 32-bit integer, not '") + optarg + "'");
        }
        r.has_int = true;
        break;
      case 'd':
        r.has_entry = true;
        r.entry = optarg;
        break;
      default:
        return ts::AnswerCommonOption(kToolName, c, argv, &PrintHelp);
    }
  }
  for (int i = optind; i < argc; ++i) r.words.emplace_back(argv[i]);
  if (const char* dir = std::getenv(kSystemDirVariable); dir != nullptr && *dir != '\0') {
    SetSystemPreferencesDirForTesting(dir);
  }
  return ts::FinishOutput(kToolName, Dispatch(r));
}

}  // namespace

int main(int argc, char* argv[]) { return tool_support::RunTool(kToolName, ToolMain, argc, argv); }
