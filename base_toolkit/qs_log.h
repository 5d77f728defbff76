// The one logging form of the system. The library, the host stand-ins, the
// tools and the workers all log through the device's qs_print_log2, with the
// source name, the line, the full signature of the function, and the process
// id in front of the text, so every line of every program reads alike.
//
// A source file names itself by defining QS_SOURCE_NAME (for example
// "src/filemetadatamanager") before its first log call. Safe on any thread,
// as qs_print_log2 is.
#pragma once

#include "tessera.h"

namespace quillstone {
enum LogLevel { kLogError = 1, kLogNotice = 3, kLogInfo = 4 };
}

#define QS_LOG(level, fmt, ...)                                                         \
  qs_print_log2((level), QS_SOURCE_NAME, __LINE__, __PRETTY_FUNCTION__, "[pid:%d]" fmt, \
                g_process_pid, ##__VA_ARGS__)

// The line of a failed check: the condition and the returned expression in
// the words of the source.
#define QS_LOG_CONDITION(condition_text, return_text) \
  QS_LOG(::quillstone::kLogError, "Condition: \"%s\", return(\"%s\")]", condition_text, return_text)

// The line of a failed nested step.
#define QS_LOG_ERR(code) QS_LOG(::quillstone::kLogError, " err:[%d] ", static_cast<int>(code))
