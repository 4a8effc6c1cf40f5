// Expat-driven reader of the PII preference file. Each open element is
// described as `name attr="value" ...`; character data is collected while the
// innermost description mentions the notice flag in any case.
#include "PIIPrefParser.h"

#include <expat.h>

#include <climits>

#include "Guarded.h"
#include "StringUtil.h"

namespace {

constexpr const char* kNoticeWord = "piinoticeshown";  // compared lower-cased

struct ParserDeleter {
  void operator()(XML_ParserStruct* parser) const { XML_ParserFree(parser); }
};
using ScopedParser = std::unique_ptr<XML_ParserStruct, ParserDeleter>;

}  // namespace

struct PIIPrefParser::Handlers {
  struct Context {
    PIIPrefParser* self;
    XML_Parser parser;
  };

  // Exceptions must not cross the C parser's frames: a handler that cannot
  // allocate stops the parse instead.
  static void XMLCALL Start(void* data, const XML_Char* name, const XML_Char** attributes) {
    auto* context = static_cast<Context*>(data);
    try {
      std::string description = name;
      for (const XML_Char** attribute = attributes; attribute[0] != nullptr; attribute += 2) {
        description += ' ';
        description += attribute[0];
        description += "=\"";
        description += attribute[1];
        description += '"';
      }
      context->self->stack_.push_back(std::move(description));
    } catch (...) {
      XML_StopParser(context->parser, XML_FALSE);
    }
  }

  static void XMLCALL End(void* data, const XML_Char* /*name*/) {
    auto* context = static_cast<Context*>(data);
    if (!context->self->stack_.empty()) context->self->stack_.pop_back();
  }

  static void XMLCALL Text(void* data, const XML_Char* text, int length) {
    auto* context = static_cast<Context*>(data);
    PIIPrefParser* self = context->self;
    if (self->stack_.empty() || length <= 0) return;
    try {
      std::string innermost = self->stack_.back();
      if (StringUtil::ToLower(innermost).find(kNoticeWord) != std::string::npos) {
        self->value_.append(text, static_cast<std::size_t>(length));
      }
    } catch (...) {
      XML_StopParser(context->parser, XML_FALSE);
    }
  }
};

PIIPrefParser::PIIPrefParser(const std::string& text) {
  ScopedParser parser(XML_ParserCreate("utf-8"));
  if (!parser || text.size() > static_cast<std::size_t>(INT_MAX)) return;
  Handlers::Context context{this, parser.get()};
  XML_SetUserData(parser.get(), &context);
  XML_SetElementHandler(parser.get(), &Handlers::Start, &Handlers::End);
  XML_SetCharacterDataHandler(parser.get(), &Handlers::Text);
  // Errors are not reported: what was collected before one is kept.
  XML_Parse(parser.get(), text.data(), static_cast<int>(text.size()), XML_TRUE);
}

PIIPrefParser::~PIIPrefParser() = default;

PIINoticeAccess::PIINoticeAccess(const std::string& text) {
  // Out of memory: no parser, so GetValue answers "".
  GuardedRun([&] {
    text_ = text;
    parser_ = std::make_unique<PIIPrefParser>(text_);
  });
}

PIINoticeAccess::~PIINoticeAccess() = default;

void PIINoticeAccess::GetValue(std::string* value) const {
  if (value == nullptr) return;
  if (!Guarded(false, [&] {
        *value = parser_ ? parser_->Value() : std::string();
        return true;
      })) {
    value->clear();
  }
}
