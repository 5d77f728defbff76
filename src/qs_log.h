// Logging helpers of the client library. Every line goes through the device's
// qs_print_log2 with the source name, the line, the full signature of the
// function, and the process id in front of the text.
//
// Each source file defines QS_LOG_SOURCE (for example "src/filemetadatamanager")
// before including this header.
#pragma once

#include "tessera.h"

namespace quillstone {
enum LogLevel { kLogError = 1, kLogNotice = 3, kLogInfo = 4 };
}

#define QS_LOG(level, fmt, ...)                                                             \
  qs_print_log2((level), QS_LOG_SOURCE, __LINE__, __PRETTY_FUNCTION__, "[pid:%d]" fmt, \
                g_process_pid, ##__VA_ARGS__)

// The line of a failed check: the condition and the returned expression in
// the words of the source.
#define QS_LOG_CONDITION(condition_text, return_text) \
  QS_LOG(1, "Condition: \"%s\", return(\"%s\")]", condition_text, return_text)

// The line of a failed nested step.
#define QS_LOG_ERR(code) QS_LOG(1, " err:[%d] ", static_cast<int>(code))
