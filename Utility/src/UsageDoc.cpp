// The fragments of a usage document, assembled from fixed literals. Readers
// of these files match the text byte for byte, so every piece is spelt out
// once here and nowhere else.
#include "UsageDoc.h"

#include <time.h>

#include "StringUtil.h"

namespace UsageDoc {
namespace {

constexpr const char* kProlog = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";
constexpr const char* kRootOpen = "\n<UsageDoc version=\"";
constexpr const char* kRootOpenEnd = "\">\n";
constexpr const char* kStartSession = "<StartSession id=\"";
constexpr const char* kNewGroup = "<NewGroup category=\"";
constexpr const char* kDataRec = "<DataRec time=\"";
constexpr const char* kEndSession = "<EndSession id=\"";
constexpr const char* kSubcategory = "\" subcategory=\"";
constexpr const char* kName = "\" name=\"";
constexpr const char* kTime = "\" time=\"";
constexpr const char* kGroup = "\" group=\"";
constexpr const char* kDoc = "\" doc=\"";
constexpr const char* kData = "\" data=\"";
constexpr const char* kSeq = "\" seq=\"";
constexpr const char* kElementEnd = "\" />\n";
constexpr const char* kRootClose = "</UsageDoc>\n";
constexpr const char* kNoValue = "NOVALUE";

// The text of a session element shared by StartSession and EndSession.
std::string SessionElement(const char* open, const std::string& id, const std::string& time,
                           std::int32_t seq) {
  std::string text(open);
  text += id;
  text += kTime;
  text += time;
  text += kSeq;
  text += std::to_string(seq);
  text += kElementEnd;
  return text;
}

}  // namespace

std::string EscapeAttributeValue(const std::string& value) {
  // The value is taken as a C string; bytes that are not UTF-8 count as
  // nothing at all.
  const std::string text = value.substr(0, value.find('\0'));
  std::string escaped;
  if (StringUtil::IsValidUTF8(text)) {
    escaped.reserve(text.size());
    // One pass gives the same result as replacing "&" first and then each
    // other character, since no reference is ever escaped twice.
    for (const char c : text) {
      switch (c) {
        case '&':
          escaped += "&#38;";
          break;
        case '<':
          escaped += "&#60;";
          break;
        case '>':
          escaped += "&#62;";
          break;
        case '"':
          escaped += "&#34;";
          break;
        case '\'':
          escaped += "&#39;";
          break;
        case '\\':
          escaped += "&#92;";
          break;
        default:
          escaped += c;
      }
    }
  }
  return escaped.empty() ? std::string(kNoValue) : escaped;
}

std::string FormatTime(std::time_t when) {
  struct tm parts {};
  if (gmtime_r(&when, &parts) == nullptr) return std::string();
  char buffer[64];
  const std::size_t length = std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &parts);
  if (length == 0) return std::string();
  return std::string(buffer, length);
}

std::string CurrentTime() { return FormatTime(std::time(nullptr)); }

std::string StartFragment(const std::string& id, const std::string& time, std::int32_t seq) {
  std::string text(kProlog);
  text += kRootOpen;
  text += kVersion;
  text += kRootOpenEnd;
  text += SessionElement(kStartSession, id, time, seq);
  return text;
}

std::string NewGroupFragment(const std::string& category, const std::string& subcategory,
                             const std::string& name, const std::string& time, std::int32_t group,
                             const std::string& doc, std::int32_t seq) {
  std::string text(kNewGroup);
  text += EscapeAttributeValue(category);
  text += kSubcategory;
  text += EscapeAttributeValue(subcategory);
  text += kName;
  text += EscapeAttributeValue(name);
  text += kTime;
  text += time;
  text += kGroup;
  text += std::to_string(group);
  text += kDoc;
  text += EscapeAttributeValue(doc);
  text += kSeq;
  text += std::to_string(seq);
  text += kElementEnd;
  return text;
}

std::string DataRecFragment(const std::string& time, std::int32_t group, const std::string& name,
                            const std::string& data, std::int32_t seq) {
  std::string text(kDataRec);
  text += time;
  text += kGroup;
  text += std::to_string(group);
  text += kName;
  text += EscapeAttributeValue(name);
  text += kData;
  text += EscapeAttributeValue(data);
  text += kSeq;
  text += std::to_string(seq);
  text += kElementEnd;
  return text;
}

std::string EndFragment(const std::string& id, const std::string& time, std::int32_t seq) {
  std::string text = SessionElement(kEndSession, id, time, seq);
  text += kRootClose;
  return text;
}

}  // namespace UsageDoc
