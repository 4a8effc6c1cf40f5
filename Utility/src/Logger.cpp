// The diagnostic log: the process-wide registry, the one logger of the
// process and its file, the "VxLog.config" reader and the line format.
// Nothing here throws to a caller and nothing is ever freed: the logger must
// stay usable until the very end of the process, static destructors included.
#include "Logger.h"

#include <cstring>
#include <iostream>
#include <memory>
#include <new>

#include "FileIO.h"
#include "FileUtil.h"
#include "Guarded.h"
#include "PlatformPaths.h"
#include "ProcessId.h"
#include "RuntimePlaces.h"
#include "StringUtil.h"
#include "UsageDoc.h"

namespace {

constexpr const char* kConfigSeparators = " =;,";
constexpr std::size_t kConfigLineBuffer = 512;
// The configuration holds a line or two; a larger file is not read at all.
constexpr std::size_t kMaxConfigBytes = std::size_t{64} * 1024;

// Handed out only when building the real logger failed (out of memory).
// Placement-constructed so that it is never destroyed either.
Logger& EmergencyLogger() {
  alignas(NULLLogger) static unsigned char storage[sizeof(NULLLogger)];
  static NULLLogger* logger = new (storage) NULLLogger(&std::cout);
  return *logger;
}

}  // namespace

GlobalItem::~GlobalItem() = default;

GlobalItemRegistry& GlobalItemRegistry::Get() {
  // Deliberately leaked: loggers may be used from other static destructors.
  static GlobalItemRegistry* registry = new GlobalItemRegistry();
  return *registry;
}

// An item that cannot be listed (out of memory) still lives for the whole
// process, which is all the list is for.
void GlobalItemRegistry::AddItem(GlobalItem* item) {
  GuardedRun([&] { items_.push_back(item); });
}

void GlobalItemRegistry::AddConfigPath(const std::string& path) {
  GuardedRun([&] { configPaths_.push_back(path); });
}

// A symbolic link, FIFO or device planted at the log's name is refused: the
// log must never truncate or overwrite another file.
Logger::LoggerFile::LoggerFile(const std::string& path, bool append)
    : stream_(FileIO::OpenOutputStream(path, append)) {}

Logger::Logger(std::ostream* stream) : stream_(stream) {}

Logger::~Logger() = default;

void Logger::Fatal(const std::string& value, const std::string& detail) {
  Log("FATAL", value, detail);
}
void Logger::Error(const std::string& value, const std::string& detail) {
  Log("ERROR", value, detail);
}
void Logger::Warning(const std::string& value, const std::string& detail) {
  Log("WARNING", value, detail);
}
void Logger::Debug(const std::string& value, const std::string& detail) {
  Log("DEBUG", value, detail);
}
void Logger::Info(const std::string& value, const std::string& detail) {
  Log("INFO", value, detail);
}

void Logger::Fatal(const std::string& value, const std::string& file, std::int32_t line) {
  Log("FATAL", value, FormatPosition(file, line));
}
void Logger::Error(const std::string& value, const std::string& file, std::int32_t line) {
  Log("ERROR", value, FormatPosition(file, line));
}
void Logger::Warning(const std::string& value, const std::string& file, std::int32_t line) {
  Log("WARNING", value, FormatPosition(file, line));
}
void Logger::Debug(const std::string& value, const std::string& file, std::int32_t line) {
  Log("DEBUG", value, FormatPosition(file, line));
}
void Logger::Info(const std::string& value, const std::string& file, std::int32_t line) {
  Log("INFO", value, FormatPosition(file, line));
}

void Logger::Log(const std::string& level, const std::string& value, const std::string& detail) {
  GuardedRun([&] {
    if (stream_ == nullptr || stream_->fail()) return;  // fail() covers a bad stream too
    std::string line;
    line.append("[").append(level).append("]");
    line.append(" | PID:").append(std::to_string(Platform::CurrentProcessId()));
    line.append(" | TIME:").append(UsageDoc::CurrentTime());
    line.append(" | VALUE:").append(value);
    line.append(" | DETAIL:").append(detail);
    // One write per line, flushed at once, so an abrupt end loses nothing.
    *stream_ << line << '\n';
    stream_->flush();
  });
}

Logger& Logger::Instance(const std::string& name) {
  static Logger* logger = nullptr;
  static LoggerFile* loggerFile = nullptr;
  Logger* const found = Guarded<Logger*>(nullptr, [&name]() -> Logger* {
    GlobalItemRegistry& registry = GlobalItemRegistry::Get();
    // Looked up on the first call only; a path that could not be kept (out of
    // memory) leaves the index past the end, which reads as no configuration.
    static const std::size_t configPathIndex = [&registry] {
      const std::size_t index = registry.ConfigPaths().size();
      registry.AddConfigPath(ConfigFilePath());
      return index;
    }();
    std::string configPath;
    if (configPathIndex < registry.ConfigPaths().size()) {
      configPath = registry.ConfigPaths()[configPathIndex];
    }

    if (!configPath.empty() && FileUtil::Exists(configPath)) {
      // Computed on every call: it re-creates a log directory removed while
      // the process runs.
      std::string logPath = LogFilePath(name);
      if (logger != nullptr) return logger;
      if (!logPath.empty()) {
        if (loggerFile == nullptr) {
          loggerFile = new LoggerFile(logPath, ReadConfigValue(configPath, "append") == "1");
          registry.AddItem(loggerFile);
        }
        logger = new Logger(loggerFile->Stream());
        registry.AddItem(logger);
        return logger;
      }
    }
    if (logger == nullptr) {
      logger = new NULLLogger(&std::cout);
      registry.AddItem(logger);
    }
    return logger;
  });
  if (found != nullptr) return *found;
  return logger != nullptr ? *logger : EmergencyLogger();
}

NULLLogger::NULLLogger(std::ostream* stream) : Logger(stream) {}

void NULLLogger::Fatal(const std::string&, const std::string&) {}
void NULLLogger::Error(const std::string&, const std::string&) {}
void NULLLogger::Warning(const std::string&, const std::string&) {}
void NULLLogger::Debug(const std::string&, const std::string&) {}
void NULLLogger::Info(const std::string&, const std::string&) {}
void NULLLogger::Fatal(const std::string&, const std::string&, std::int32_t) {}
void NULLLogger::Error(const std::string&, const std::string&, std::int32_t) {}
void NULLLogger::Warning(const std::string&, const std::string&, std::int32_t) {}
void NULLLogger::Debug(const std::string&, const std::string&, std::int32_t) {}
void NULLLogger::Info(const std::string&, const std::string&, std::int32_t) {}

std::string FormatPosition(const std::string& file, std::int32_t line) {
  return Guarded(std::string(), [&] { return "File:" + file + " LINE:" + std::to_string(line); });
}

std::string ReadConfigValue(const std::string& configPath, const std::string& key) {
  return Guarded(std::string(), [&] {
    // Opened for reading and writing without creating or truncating: a file
    // that may not be written to is deliberately treated as having no
    // settings. Never blocks: a FIFO reads as a file that cannot be opened.
    std::string text;
    if (FileIO::ReadWritableFile(configPath, kMaxConfigBytes, &text) != FileIO::ReadStatus::kOk) {
      return std::string();
    }
    // A later line with the key overrides an earlier one. A line holds at
    // most kConfigLineBuffer - 1 characters; a longer one ends the reading.
    std::string value;
    std::string::size_type start = 0;
    while (start < text.size()) {
      std::string::size_type end = text.find('\n', start);
      if (end == std::string::npos) end = text.size();
      if (end - start > kConfigLineBuffer - 1) break;
      std::string line = text.substr(start, end - start);
      line.resize(std::strlen(line.c_str()));  // a NUL byte ends the line's text
      std::vector<std::string> tokens;
      StringUtil::Split(line, &tokens, kConfigSeparators);
      if (tokens.size() >= 2 && tokens[0] == key) value = tokens[1];
      start = end + 1;
    }
    return value;
  });
}

std::string ConfigFilePath() {
  return Guarded(std::string(), [] {
    std::string bundle;
    std::string directory;
    if (Platform::GetMainBundlePath(&bundle) && !bundle.empty()) {
      directory = FileUtil::WithTrailingSeparator(bundle);
    }
    return directory + Places::kDiagnosticConfigName;
  });
}

std::string LogFilePath(const std::string& name) {
  return Guarded(std::string(), [&] {
    std::string library;
    if (!FileUtil::GetUserLibraryDirectory(&library)) return std::string();
    std::string path = library + Places::kDiagnosticLogPrefix + name + ".txt";
    std::string directory = path.substr(0, path.rfind('/'));
    return FileUtil::CreateDirectories(directory) ? path : std::string();
  });
}
