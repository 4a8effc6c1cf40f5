// The optional diagnostic log. Logging is on only when "VxLog.config" lies in
// the main bundle's directory; then every level operation writes one flushed
// line to ~/Library/Logs/Quorvik/LumetryQX/VxLog-<name>.txt. Otherwise a
// NULLLogger that discards everything is handed out, so callers never test
// whether logging is on. Objects made here live until the process ends.
#ifndef LUMETRY_UTILITY_LOGGER_H_
#define LUMETRY_UTILITY_LOGGER_H_

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

// Base of every object the logging code keeps for the life of the process.
class GlobalItem {
 public:
  GlobalItem() = default;
  GlobalItem(const GlobalItem&) = delete;
  GlobalItem& operator=(const GlobalItem&) = delete;
  virtual ~GlobalItem();
};

// Process-wide owner of the logging objects; created on first use, never
// destroyed, never shrinks.
class GlobalItemRegistry {
 public:
  static GlobalItemRegistry& Get();
  void AddItem(GlobalItem* item);  // takes ownership
  void AddConfigPath(const std::string& path);
  const std::vector<GlobalItem*>& Items() const { return items_; }
  const std::vector<std::string>& ConfigPaths() const { return configPaths_; }

 private:
  GlobalItemRegistry() = default;
  std::vector<GlobalItem*> items_;
  std::vector<std::string> configPaths_;
};

class Logger : public GlobalItem {
 public:
  // Owns the output file stream of the process's logger.
  class LoggerFile : public GlobalItem {
   public:
    LoggerFile(const std::string& path, bool append);
    // Null when the file could not be opened: every line is then dropped.
    std::ostream* Stream() { return stream_.get(); }

   private:
    std::unique_ptr<std::ostream> stream_;
  };

  // `stream` is not owned.
  explicit Logger(std::ostream* stream);
  ~Logger() override;

  virtual void Fatal(const std::string& value, const std::string& detail);
  virtual void Error(const std::string& value, const std::string& detail);
  virtual void Warning(const std::string& value, const std::string& detail);
  virtual void Debug(const std::string& value, const std::string& detail);
  virtual void Info(const std::string& value, const std::string& detail);
  virtual void Fatal(const std::string& value, const std::string& file, std::int32_t line);
  virtual void Error(const std::string& value, const std::string& file, std::int32_t line);
  virtual void Warning(const std::string& value, const std::string& file, std::int32_t line);
  virtual void Debug(const std::string& value, const std::string& file, std::int32_t line);
  virtual void Info(const std::string& value, const std::string& file, std::int32_t line);
  // Writes "[LEVEL] | PID:.. | TIME:.. | VALUE:.. | DETAIL:.." and flushes.
  virtual void Log(const std::string& level, const std::string& value, const std::string& detail);

  // The process's logger; `name` is the middle of the log file's name.
  // Never null; never to be deleted by the caller.
  static Logger& Instance(const std::string& name);

 private:
  std::ostream* stream_;
};

// Discards every level operation; built over standard output, which it never
// writes to.
class NULLLogger : public Logger {
 public:
  explicit NULLLogger(std::ostream* stream);
  void Fatal(const std::string& value, const std::string& detail) override;
  void Error(const std::string& value, const std::string& detail) override;
  void Warning(const std::string& value, const std::string& detail) override;
  void Debug(const std::string& value, const std::string& detail) override;
  void Info(const std::string& value, const std::string& detail) override;
  void Fatal(const std::string& value, const std::string& file, std::int32_t line) override;
  void Error(const std::string& value, const std::string& file, std::int32_t line) override;
  void Warning(const std::string& value, const std::string& file, std::int32_t line) override;
  void Debug(const std::string& value, const std::string& file, std::int32_t line) override;
  void Info(const std::string& value, const std::string& file, std::int32_t line) override;
};

// "File:" + file + " LINE:" + line.
std::string FormatPosition(const std::string& file, std::int32_t line);

// The value of `key` in a "VxLog.config"-style file, or "" (see Logger.cpp
// for the 512-byte line rule and the token separators " =;,").
std::string ReadConfigValue(const std::string& configPath, const std::string& key);

// Main bundle directory + "VxLog.config" (the bare name without a bundle).
std::string ConfigFilePath();

// ~/Library/Logs/Quorvik/LumetryQX/VxLog-<name>.txt with its directory
// created, or "" when the directory cannot be made.
std::string LogFilePath(const std::string& name);

#endif  // LUMETRY_UTILITY_LOGGER_H_
