// The tools driven as an operator would: a row is a shell script run in a sandbox HOME (holding
// the any-user and XDG directories; the tools first on PATH), its output and status. Python's
// plistlib, another implementation of the format, writes and reads lists (pl FILE [JSON [bin]]).
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "PlatformPaths.h"
#include "TestSupport.h"

namespace {

namespace ts = testing_support;

// A script, its output and status; bytes planted first as the domain file com.t.
struct Row {
  std::string script, out, err = "";
  int status = 0;
  std::string plant = "";
};
std::string Replace(std::string text, const std::string& from, const std::string& to) {
  for (auto at = text.find(from); !from.empty() && at != std::string::npos;
       at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

// Abbreviations in expected texts: message prefixes, usage hints, the default server.
std::string Expand(std::string text) {
  for (const std::string item :
       {"%Dlumetry-defaults: ", "%Clogcourier-config: ", "%U\nTry 'lumetry-defaults --help'.\n",
        "%V\nTry 'logcourier-config --help'.\n", "%Lhttps://lumetry.quorvik.com/lumetry"})
    text = Replace(text, item.substr(0, 2), item.substr(2));
  return text;
}

// Runs a row; in the outputs the sandbox reads "~" and the host identifier "HOST".
void Check(const Row& row) {
  SCOPED_TRACE(row.script);
  const char* preamble = R"sh(cd "$HOME" && P=Library/Preferences && mkdir -p $P || exit 99
pl() { mkdir -p "$(dirname "$1")" && python3 -c "$PL" "$@"; }
dflt() { lumetry-defaults "$@"; }
)sh";
  const char* python = R"(import json, plistlib, sys
f, *rest = sys.argv[1:]
if rest: open(f, 'wb').write(plistlib.dumps(json.loads(rest[0]),
    fmt=plistlib.FMT_BINARY if rest[1:] == ['bin'] else plistlib.FMT_XML))
else: print(json.dumps(plistlib.load(open(f, 'rb')), sort_keys=True)))";
  ts::ScopedTempDir home;
  const std::string host = Platform::GetHostId();
  ASSERT_TRUE(row.plant.empty() ||
              ts::WriteFile(home.Sub("Library/Preferences/com.t.plist"), row.plant));
  ts::RunResult run = ts::RunProgram(
      {"/bin/sh", "-c", preamble + row.script},
      {"HOME=" + home.path(), "PATH=" TOOLS_DIR ":" + std::string(std::getenv("PATH")),
       "LUMETRY_SYSTEM_PREFS_DIR=" + home.Sub("system"), "H=" + host, "PL=" + std::string(python),
       "XDG_CONFIG_HOME=", "XDG_DATA_HOME=", "XDG_CONFIG_DIRS=" + home.Sub("etc"),
       "XDG_DATA_DIRS=" + home.Sub("share")});
  for (std::string* text : {&run.out, &run.err})
    *text = Replace(Replace(*text, home.path(), "~"), host, "HOST");
  EXPECT_EQ(Expand(row.out), run.out);
  EXPECT_EQ(Expand(row.err), run.err);
  EXPECT_EQ(row.status, run.status);
}

TEST(ToolConventionsCliTest, HelpVersionAndUnknownOptions) {
  for (const std::string tool :
       {"ulog-decode", "logcourier-config", "lumetry-sysinfo", "lumetry-defaults"}) {
    Check({tool + " --version", tool + " " LUMETRY_PROJECT_VERSION "\n"});
    Check({tool + " --help | cut -d' ' -f1,2 | head -1 && " + tool + " --help 2>&1 >/dev/null",
           "Usage: " + tool + "\n"});
    for (const auto& [args, message] : std::vector<std::pair<std::string, std::string>>{
             {"--x", "unrecognized option '--x'"},
             {"--x=1", "unrecognized option '--x'"},
             {"-z", "invalid option -- 'z'"},
             {"--help=x", "option '--help' doesn't allow an argument"},
             {"--nope --version", "unrecognized option '--nope'"}})
      Check({tool + " " + args, "", tool + ": " + message + "\nTry '" + tool + " --help'.\n", 2});
  }
}

TEST(ToolConventionsCliTest, UnreadableInputsFullOutputAndTheInputCap) {
  const std::vector<std::pair<std::string, std::string>> readers = {
      {"ulog-decode", "16"}, {"logcourier-config --file", "1"}, {"lumetry-defaults import x", "1"}};
  for (const auto& [command, mib] : readers) {
    const std::string tool = command.substr(0, command.find(' '));
    for (const auto& [file, reason] :
         std::vector<std::pair<std::string, std::string>>{{"none", "No such file or directory"},
                                                          {"/", "Is a directory"},
                                                          {"big", "larger than " + mib + " MiB"}})
      Check({"truncate -s $((" + mib + " * 1048576 + 1)) big; " + command + " " + file, "",
             tool + ": " + file + ": " + reason + "\n", 1});
  }
  const std::string doc = "printf '[settings]\\n<doc/>\\n' > doc.xml; ";
  for (const std::string run : {"ulog-decode doc.xml", "logcourier-config --file doc.xml",
                                "lumetry-sysinfo", "lumetry-defaults paths"}) {
    const std::string tool = run.substr(0, run.find(' '));
    const std::string full = tool + ": write error: No space left on device\n";
    Check({doc + run + " >/dev/full", "", full, 1});
    Check({tool + " --help >/dev/full", "", full, 1});
  }
  // A settings text of exactly the cap is read.
  Check(
      {"printf '[settings]\\nmaxretries=4\\n' > c; head -c 1048552 /dev/zero | tr '\\0' '\\n' >>c;"
       "logcourier-config --file c | grep maxRetries",
       "maxRetries: 4\n"});
}

TEST(ToolConventionsCliTest, SysinfoPrintsTheProbesAndTheBrowserHandler) {
  const std::string browser = "lumetry-sysinfo | sed -n 's/^Browser: //p'";
  const std::string handlers = "pl $P/com.apple.LaunchServices.plist '{\"LSHandlers\": ";
  const Row rows[] = {
      {"lumetry-sysinfo | sed -E 's/^(CPU MHz: )(0|[1-9][0-9]*)$/\\1N/; s/^(CPU|Model|Browser): "
       ".*/\\1/'",
       "CPU\nModel\nCPU MHz: N\nBrowser\n"},
      {"lumetry-sysinfo --json | python3 -c 'import json, sys; d = json.load(sys.stdin); "
       "print(list(d), type(d[\"cpuMHz\"]).__name__, d[\"browser\"])'",
       "['cpu', 'model', 'cpuMHz', 'browser'] int com.apple.safari\n"},
      {"lumetry-sysinfo extra", "",
       "lumetry-sysinfo: unexpected argument 'extra'\nTry 'lumetry-sysinfo --help'.\n", 2},
      // Unusable handlers are skipped; the first usable one is kept as written.
      {handlers + R"([{"LSHandlerURLScheme": "mailto", "LSHandlerRoleAll": "m.mail"},
           {"LSHandlerURLScheme": "HTTP", "LSHandlerRoleAll": "com.a"},
           {"LSHandlerURLScheme": "http", "LSHandlerRoleViewer": "com.a"},
           {"LSHandlerURLScheme": "http", "LSHandlerRoleAll": ""}, "not a dictionary",
           {"LSHandlerURLScheme": "http", "LSHandlerRoleAll": 5},
           {"LSHandlerURLScheme": "http", "LSHandlerRoleAll": "Org.Mozilla.FIREFOX"},
           {"LSHandlerURLScheme": "http", "LSHandlerRoleAll": "com.c"}]}' bin; )" +
           browser,
       "Org.Mozilla.FIREFOX\n"},
      {handlers + R"({"LSHandlerURLScheme": "http", "LSHandlerRoleAll": "a"}}'; )" + browser,
       "com.apple.safari\n"},
      // The first XDG [Default Applications] entry, unless LaunchServices names one.
      {"mkdir etc; printf '# c\\n[Added Associations]\\nx-scheme-handler/http=added.desktop\\n"
       "[Default Applications]\\r\\ntext/html=h.desktop\\n x-scheme-handler/http = ;first.desktop;"
       "second.desktop;\\r\\n' > etc/mimeapps.list; " +
           browser + "; " + handlers +
           R"([{"LSHandlerURLScheme": "http", "LSHandlerRoleAll": "com.ls"}]}'; )" + browser,
       "first.desktop\ncom.ls\n"},
  };
  for (const Row& row : rows) Check(row);
}

// A settings file shown (refusals named) and left as it was; else the user's copy.
TEST(ToolConventionsCliTest, ConfigShowsRefusesAndFindsItsFile) {
  const std::string mine =
      "printf '[settings]\\nmaxretries=9\\nmaxdiskspace=50\\nurl=http://up.quorvik.com/b\\n"
      "[ulog]\\nstatus=Hibernate\\nwakeupdate=2001-01-01\\n[hibernate]\\nb_2=y\\na_1=x|2999-01-"
      "01\\n' >c; cp c o; ";
  const std::string bad =
      "printf '[settings]\\nmaxdiskspace=99999\\nretryinterval=0\\nmaxretries=5\\n"
      "url=https://evil.example.org/x\\n[ulog]\\nstatus=kill\\n' >c; ";
  const std::string u = "http://up.quorvik.com/b";
  const Row rows[] = {
      {mine + "logcourier-config --file c && cmp c o",
       "file: c\nmaxDiskSpace: 50\nretryInterval: 10\nmaxRetries: 3\nserverUrl: " + u +
           "\nuploadUrl: " + u + "/UploadFile/\nconfigUrl: " + u + "/GetConfig/\ntarvixUrl: " + u +
           "/GetTarvix/\nstatus: Active\nhibernated: a_1=x|2999-01-01\nhibernated: b_2=y\n",
       "%Cc: maxretries=9 refused (accepted 1..5), using 3\n", 0},
      // Every refusal also on standard error, in the first row's form.
      {bad + "logcourier-config --json --file c 2>e && cut -d' ' -f3 e",
       R"({"file":"c","maxDiskSpace":10,"retryInterval":10,"maxRetries":5,"serverUrl":"%L",)"
       R"("uploadUrl":"%L/UploadFile/","configUrl":"%L/GetConfig/","tarvixUrl":"%L/GetTarvix/",)"
       R"("status":"Active","hibernated":{},"refused":[{"key":"maxdiskspace","value":"99999",)"
       R"("reason":"accepted 5..100","using":"10"},{"key":"retryinterval","value":"0","reason":)"
       R"("accepted 1..60","using":"10"},{"key":"url","value":"https://evil.example.org/x",)"
       R"("reason":"not an allowed server address","using":"%L"},{"key":"status","value":)"
       R"("kill","reason":"accepted Active, Kill, Hibernate","using":"Active"}]})"
       "\nmaxdiskspace=99999\nretryinterval=0\nurl=https://evil.example.org/x\nstatus=kill\n"},
      {"logcourier-config | head -1",
       "file: ~/Library/Application Support/Quorvik/LogCourier2QX/LogCourier2.cfg\n"},
      {": >f; HOME=$PWD/f logcourier-config", "",
       "%Ccannot find or create the user's configuration directory\n", 1},
      {"logcourier-config --file", "", "%Coption '--file' requires an argument%V", 2},
      {"logcourier-config --file=", "", "%C--file needs a non-empty path%V", 2},
      {"logcourier-config stray", "", "%Cunexpected argument 'stray'%V", 2},
  };
  for (const Row& row : rows) Check(row);
}

TEST(ToolConventionsCliTest, DefaultsEveryVerbInEveryScope) {
  for (const auto& [flags, file] : std::vector<std::pair<std::string, std::string>>{
           {"", "~/Library/Preferences/com.t.plist"},
           {"-currentHost", "~/Library/Preferences/ByHost/com.t.HOST.plist"},
           {"-anyUser", "~/system/com.t.plist"},
           {"-anyUser -currentHost", "~/system/ByHost/com.t.HOST.plist"}}) {
    const std::string f = Replace(Replace(file, "~", "\"$HOME\""), "HOST", "$H");
    Check({"d() { dflt " + flags + " \"$@\"; }; F=" + f +
               R"(; d write com.t name -string 'a "b"' && d write com.t count -int -12 &&)"
               R"( d write com.t plain word && d write com.t map -dict-add n -int 3 &&)"
               R"( d write com.t map -dict-add t -string x && pl "$F" && stat -c %a "$F" "$F.lock")"
               R"( && d read com.t && d read com.t count && d read-type com.t map && d domains;)"
               R"( d write com.t name -dict-add e -int 1; d delete com.t count && d delete com.t)"
               R"( count; d delete com.t && d domains && d read com.t || d delete com.t)",
           "{\"count\": -12, \"map\": {\"n\": 3, \"t\": \"x\"}, \"name\": \"a \\\"b\\\"\", "
           "\"plain\": \"word\"}\n600\n600\n{\n    name = \"a \\\"b\\\"\";\n    count = -12;\n"
           "    plain = \"word\";\n    map = {\n        n = 3;\n        t = \"x\";\n    };\n}\n"
           "-12\nType is dictionary\ncom.t\n",
           Replace("%D@: 'name' holds a string, not a dictionary\n%D@: no key 'count'\n%D@: No "
                   "such file or directory\n%D@: No such file or directory\n",
                   "@", file),
           1});
  }
}

TEST(ToolConventionsCliTest, DefaultsValuesFilesOfOtherToolsAndRefusals) {
  const std::string kNotDict = ": not a property list holding a dictionary\n";
  const std::string kStore = "%D~/Library/Preferences/com.t.plist: cannot store ";
  const std::string kUnwritable = " (invalid text or unwritable file)\n";
  const std::string json = R"({"arr": [1, "two", {"k": "v"}], "b": true, "big": 1099511627776, )"
                           R"("r": 1.5, "s": "caf\u00e9 \"q\""})";
  const std::string exchange =
      "; dflt read com.t; for k in arr b big r s; do dflt read-type com.t $k; done; "
      "dflt import com.c $P/com.t.plist && pl $P/com.c.plist && dflt export com.c x && pl x && "
      "dflt export com.c - | head -c 6 && dflt write com.t i -int 8 && pl $P/com.t.plist";
  const std::string exchanged =
      "{\n    arr = (\n        1,\n        \"two\",\n        {\n            k = \"v\";\n        }\n"
      "    );\n    b = 1;\n    big = 1099511627776;\n    r = 1.5;\n    s = \"caf\xC3\xA9 "
      "\\\"q\\\"\""
      ";\n}\nType is array\nType is boolean\nType is integer\nType is real\nType is string\n" +
      json + "\n" + json + "\n<?xml " + Replace(json, "\"r\"", "\"i\": 8, \"r\"") + "\n";
  const Row rows[] = {
      {"pl $P/com.t.plist '" + json + "'" + exchange, exchanged},
      {"pl $P/com.t.plist '" + json + "' bin" + exchange, exchanged},
      {"dflt write com.t a -int -2147483648 && dflt write com.t b -int 2147483647 && "
       "dflt write com.t e -string '' && dflt write com.t u \"$(printf 'h\\303\\251')\" && "
       "pl $P/com.t.plist",
       R"({"a": -2147483648, "b": 2147483647, "e": "", "u": "h\u00e9"})"
       "\n"},
      {R"(printf '<plist><dict><key>odd key</key><array><dict/><array/></array><key>d</key><data>)"
       R"(AAH/</data><key>t</key><date>2001-01-02T00:00:00Z</date><key>e</key><string>a"b\\c\nd)"
       R"(\te\001</string></dict></plist>' >$P/com.t.plist; dflt read com.t; dflt read-type com.t)"
       R"( d; dflt read-type com.t t)",
       "{\n    \"odd key\" = (\n        {\n        },\n        (\n        )\n    );\n"
       "    d = <0001ff>;\n    t = 2001-01-02 00:00:00 +0000;\n    e = "
       "\"a\\\"b\\\\c\\nd\\te\\001\";"
       "\n}\nType is data\nType is date\n"},
      {"dflt write com.b n -int 1 && dflt write com.a n -int 1 && dflt -currentHost write com.h k "
       "v && dflt -anyUser write com.s k v && : >$P/.com.a.plist.Xy12ab && : >$P/.hidden.plist && "
       "mkdir $P/f.plist && : >$P/notes.txt && dflt domains && dflt -currentHost domains && "
       "dflt -anyUser domains && dflt -anyUser -currentHost domains && dflt read",
       "com.a\ncom.b\ncom.h\ncom.s\n{\n    com.a = {\n        n = 1;\n    };\n    com.b = {\n"
       "        n = 1;\n    };\n}\n"},
      {"dflt paths com.t",
       "HOST-ID: HOST\ncurrent user, any host: ~/Library/Preferences/com.t.plist\n"
       "current user, current host: ~/Library/Preferences/ByHost/com.t.HOST.plist\n"
       "any user, any host: ~/system/com.t.plist\nany user, current host: "
       "~/system/ByHost/com.t.HOST.plist\n"},
      {"dflt read a/b", "", "%D'a/b' is not a valid domain name\n", 1},
      {"dflt delete \"$(printf 'com.\\351')\" k", "", "%D'com.\xE9' is not a valid domain name\n",
       1},
      {"dflt write com.t \"$(printf 'k\\377')\" v", "", kStore + "'k\xFF'" + kUnwritable, 1},
      {"pl x '[]'; dflt import com.t x", "", "%Dx" + kNotDict, 1},
      {"echo junk >x; dflt import com.t x", "", "%Dx" + kNotDict, 1},
      {": >x; dflt import com.t x", "", "%Dx" + kNotDict, 1},
      {"printf 'bplist00\\377\\377' | dflt import com.t -", "", "%Dstandard input" + kNotDict, 1},
      // A FIFO at the domain file or at its lock: refused at once, never waited on.
      {"mkfifo $P/com.t.plist; dflt write com.t k -dict-add e -int 1", "",
       kStore + "'k'" + kUnwritable, 1},
      {"mkfifo $P/com.t.plist.lock; dflt write com.t k v", "", kStore + "'k'" + kUnwritable, 1},
      {"dflt write com.t k v && dflt export com.t none/x", "",
       "%Dnone/x: No such file or directory\n", 1},
      {"dflt", "", "%Dno verb given%U", 2},
      {"dflt frob", "", "%Dunknown verb 'frob'%U", 2},
      {"dflt read a b c", "", "%Dwrong number of arguments for 'read'%U", 2},
      {"dflt write com.t k", "",
       "%Dusage: write DOMAIN KEY (-string S | -int N | -dict-add ENTRY (-string S | -int N))%U",
       2},
      {"dflt write com.t k -int 2147483648", "",
       "%D-int needs a signed 32-bit integer, not '2147483648'%U", 2},
      {"dflt write com.t k -int 1 -string s", "", "%Dgive -string or -int, not both%U", 2},
      {"dflt read com.t -string s", "", "%D-string, -int and -dict-add belong to 'write'%U", 2},
  };
  for (const Row& row : rows) Check(row);
}

// Hostile files read as what they soundly hold (else empty), never crash or hang; no key lost.
TEST(ToolConventionsCliTest, DefaultsReadsHostileFilesSafely) {
  const std::string script = "dflt read com.t; dflt write com.t n -int 1; pl $P/com.t.plist";
  const std::string nul(1, '\0');
  std::string deep_xml = "<plist><dict><key>k</key>";
  for (int i = 0; i < 100000; ++i) deep_xml += "<array>";
  for (int i = 0; i < 100000; ++i) deep_xml += "</array>";
  // k OCTAL AT: a binary {"k": "v"} (50 bytes) with the byte at AT overwritten.
  const std::string k = R"(k() { pl $P/com.t.plist '{"k": "v"}' bin && printf "\\$1" | )"
                        "dd of=$P/com.t.plist bs=1 seek=$2 conv=notrunc status=none; }; ";
  const std::string latin1_xml =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
      "<key>MachineID</key><string>ID-1</string><key>city</key><string>\xE9t\xE9</string>"
      "<key>d</key><dict><key>k\xFF</key><string>v\xFF</string></dict></dict></plist>\n";
  const Row rows[] = {
      {k + "k 166 14; " + script, "{\n    k = \"v\";\n}\n{\"k\": \"v\", \"n\": 1}\n"},
      {R"(pl $P/com.t.plist '{"k": "ab\u0000cd"}' bin; )" + script,
       "{\n    k = \"ab\";\n}\n{\"k\": \"ab\", \"n\": 1}\n"},
      // Text that is not UTF-8 is repaired at read, so no key is lost at the write.
      {script,
       "{\n    MachineID = \"ID-1\";\n    city = \"\xC3\xA9t\xC3\xA9\";\n    d = {\n"
       "        \"k\xC3\xBF\" = \"v\xC3\xBF\";\n    };\n}\n"
       R"({"MachineID": "ID-1", "city": "\u00e9t\u00e9", "d": {"k\u00ff": "v\u00ff"}, "n": 1})"
       "\n",
       "", 0, latin1_xml},
      // A nesting within the store's bound but past the dump's is shown cut short.
      {"dflt read com.t | grep -c '[.][.][.]'", "1\n", "", 0,
       deep_xml.substr(0, 25 + 100 * 7) + deep_xml.substr(deep_xml.size() - 100 * 8) +
           "</dict></plist>"},
  };
  for (const Row& row : rows) Check(row);
  // Cut short, spoiled trailers, no dictionary, too deep, a loop, NULs in keys.
  const std::string xml = "<plist><dict><key>k";
  for (const std::string setup :
       {"k 166 14; truncate -s 49 $P/com.t.plist", "k 11 24", "k 377 26", "k 200 42", "k 377 49",
        R"(pl $P/com.t.plist '{"k\u0000": "v"}' bin)"})
    Check({k + setup + "; " + script, "{\n}\n{\"n\": 1}\n"});
  for (const std::string& plant :
       {std::string("garbage\n"), std::string("<plist><array/></plist>"),
        deep_xml + "</dict></plist>", ts::NestedBinaryArrays(200000),
        ts::NestedBinaryArrays(3, true), xml + "</key><string>a" + nul + "</string></dict></plist>",
        xml + "&#0;</key><string>v</string></dict></plist>",
        xml + "&#x000;</key><string>v</string></dict></plist>"})
    Check({script, "{\n}\n{\"n\": 1}\n", "", 0, plant});
}

}  // namespace
