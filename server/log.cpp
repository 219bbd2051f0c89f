#include "server/log.h"

#include <fmt/format.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "platform/file.h"
#include "platform/log.h"
#include "platform/streams.h"

namespace portsvc::server {
namespace {

Log_Level level_of(const std::string& name) {
  if (name == "debug") return Log_Level::debug;
  if (name == "warning") return Log_Level::warning;
  if (name == "error") return Log_Level::error;
  return Log_Level::info;
}

spdlog::level::level_enum severity(Log_Level level) {
  switch (level) {
    case Log_Level::debug:
      return spdlog::level::debug;
    case Log_Level::warning:
      return spdlog::level::warn;
    case Log_Level::error:
      return spdlog::level::err;
    default:
      return spdlog::level::info;
  }
}

/// How the journal knows the levels.
const char* journal_mark(Log_Level level) {
  switch (level) {
    case Log_Level::debug:
      return "<7>";
    case Log_Level::warning:
      return "<4>";
    case Log_Level::error:
      return "<3>";
    default:
      return "<6>";
  }
}

/// The variable is inherited also by what has another standard error since.
bool goes_to_journal() {
  const char* const stream = std::getenv("JOURNAL_STREAM");  // NOLINT(concurrency-mt-unsafe)
  return stream && *stream && file_identity(standard_error) == stream;
}

std::string escaped(const std::string& text) {
  std::string line;
  line.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      line += fmt::format("\\x{:02x}", byte);
    } else {
      line += c;
    }
  }
  return line;
}

std::string json_members(const char* subject, const std::string& text) {
  const nlohmann::ordered_json members{{"subject", subject}, {"text", text}};
  const std::string object = members.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  return object.substr(1, object.size() - 2);
}

std::shared_ptr<spdlog::logger> logger_of(const Log_Options& options, bool journal) {
  try {
    spdlog::sink_ptr sink;
    if (options.file.empty()) {
      sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    } else {
      sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(options.file, options.file_size,
                                                                    options.files);
    }
    auto logger = std::make_shared<spdlog::logger>("port_server", sink);
    logger->set_level(spdlog::level::trace);
    logger->flush_on(spdlog::level::trace);
    if (options.format == "json") {
      logger->set_pattern(R"({"time":"%Y-%m-%dT%H:%M:%S.%e%z","level":"%l",%v})");
    } else {
      logger->set_pattern(journal ? "%v" : "%Y-%m-%d %H:%M:%S.%e %l %v");
    }
    // A full disk must not fill the standard error as well, nor end the server.
    logger->set_error_handler([](const std::string&) {});
    return logger;
  } catch (const spdlog::spdlog_ex& failure) {
    throw std::runtime_error(fmt::format("cannot open the log: {}", failure.what()));
  }
}

}  // namespace

Log::Log(const Log_Options& options) { open(options); }

Log::~Log() { set_log_sink(nullptr); }

void Log::open(const Log_Options& options) {
  const bool json = options.format == "json";
  const bool journal = !json && options.file.empty() && goes_to_journal();
  const auto logger = logger_of(options, journal);
  set_log_level(level_of(options.level));
  set_log_sink([=](Log_Level level, const char* subject, const std::string& text) {
    if (json) {
      logger->log(severity(level), json_members(subject, text));
    } else {
      logger->log(severity(level), fmt::format("{}{}: {}", journal ? journal_mark(level) : "",
                                               subject, escaped(text)));
    }
  });
}

void Log::reopen(const Log_Options& options) {
  try {
    open(options);
  } catch (const std::runtime_error& failure) {
    log(Log_Level::error, "log", failure.what());
  }
}

}  // namespace portsvc::server
