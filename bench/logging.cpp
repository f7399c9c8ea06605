#include <benchmark/benchmark.h>

#include "Platform/Logger.h"
#include "Platform/LoggingEvent.h"
#include "Platform/LongFormat.h"

LUM_SOURCE_FILE("Platform/LoggingBench");

namespace {

using Lum::Core::FilterProperties;
using Lum::Core::Logger;

// One long-format file appender on /dev/null that passes core/state up to
// info, as a device configured for field use would have.
void InitializeDevNullLogger() {
  LumJson::Value filter;
  filter["service"] = "core";
  filter["category"] = "state";
  filter["severity"] = "info";
  LumJson::Value element;
  element["type"] = "file";
  element["argument"] = "/dev/null";
  element["format"] = "long";
  element["filters"].append(filter);
  LumJson::Value loggers(LumJson::arrayValue);
  loggers.append(element);
  Logger::Instance().initialize(loggers);
}

// The cost every call site pays for a line that is filtered out: the test
// before any formatting, while logging is otherwise active.
void BM_DisabledLogLine(benchmark::State& state) {
  InitializeDevNullLogger();
  int value = 0;
  for (auto _ : state) {
    LUM_LOG(FilterProperties::SERVICE_CORE, FilterProperties::CATEGORY_STATE,
            FilterProperties::SEVERITY_DEBUG, "value %d", value++);
    benchmark::DoNotOptimize(value);
  }
  Logger::Instance().terminate();
}
BENCHMARK(BM_DisabledLogLine);
BENCHMARK(BM_DisabledLogLine)->Threads(2);

// The same while logging is not initialised at all.
void BM_UninitializedLogLine(benchmark::State& state) {
  int value = 0;
  for (auto _ : state) {
    LUM_LOG(FilterProperties::SERVICE_CORE, FilterProperties::CATEGORY_STATE,
            FilterProperties::SEVERITY_ERROR, "value %d", value++);
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_UninitializedLogLine);

// Formatting one long-format line, without any output.
void BM_LongFormatLine(benchmark::State& state) {
  Lum::Core::LoggingEvent event("Platform/TimedSem", 85, "wait", 0, 0, 2,
                                "TimedSem Problem: 22 1234.000000000s");
  Lum::Core::LongFormat format;
  for (auto _ : state) {
    std::string line = format.format(event);
    benchmark::DoNotOptimize(line.data());
  }
}
BENCHMARK(BM_LongFormatLine);

// A full enabled log call: test, message formatting, event, long format and
// one write() to /dev/null.
void BM_EnabledLogLineToDevNull(benchmark::State& state) {
  InitializeDevNullLogger();
  int value = 0;
  for (auto _ : state) {
    LUM_LOG(FilterProperties::SERVICE_CORE, FilterProperties::CATEGORY_STATE,
            FilterProperties::SEVERITY_INFO, "next call in %d ms", value++);
  }
  Logger::Instance().terminate();
}
BENCHMARK(BM_EnabledLogLineToDevNull);

}  // namespace
