#include "platform/host/SysLog.h"

#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

#include "platform/host/LogLine.h"
#include "platform/host/LogSink.h"
#include "platform/host/Mutex.h"

namespace {

/// The process's name in the log: the program's until it is given one.
struct ProcessName {
    Mutex mutex;
    std::string name GUARDED_BY(mutex) = program_invocation_short_name;

    static ProcessName& instance() {
        static auto& only = *new ProcessName;
        return only;
    }
};

/// Whether the calling thread has an open record. A plain flag: asking it costs a thread that never logs nothing.
thread_local bool recordOpen = false;

struct Record {
    std::uint32_t level = 0;
    std::string id;
    std::string text;

    /// A thread that ends with an open record ends that, too.
    ~Record() { end(); }

    void end() {
        if (!std::exchange(recordOpen, false)) return;
        LogSink::instance().write(level, id, text);
        text.clear();
    }
};

thread_local std::string threadName;  // before the record, which needs it when the thread ends
thread_local Record record;

}  // namespace

void SysLog::procName(const Ref<String>& name) {
    ProcessName& process = ProcessName::instance();
    const MutexLock lock(process.mutex);
    process.name = viewOf(name);
}

std::string SysLog::procName() {
    ProcessName& process = ProcessName::instance();
    const MutexLock lock(process.mutex);
    return process.name;
}

void SysLog::thdName(const Ref<String>& name) {
    threadName = viewOf(name);
}

std::string SysLog::thdName() {
    return threadName.empty() ? std::to_string(gettid()) : threadName;
}

SysLogStream& SysLogStream::stdOutPrinter() noexcept {
    static constinit SysLogStream printer;
    return printer;
}

SysLogStream& SysLogStream::begin(std::uint32_t level, std::string_view id) {
    if (recordOpen) return *this;
    recordOpen = true;
    record.level = level;
    record.id = id;
    return *this;
}

SysLogStream& SysLogStream::append(std::string_view text) {
    if (recordOpen) record.text += text;
    return *this;
}

SysLogStream& SysLogStream::appendNumber(std::uint64_t number) {
    return recordOpen ? append(LogLine::number(number)) : *this;
}

void SysLogStream::end() {
    if (recordOpen) record.end();
}

void SysLogStream::flush(std::uint32_t timeoutMs) {
    LogSink::instance().flush(timeoutMs);
}

LogRecord::LogRecord(std::uint32_t level, std::uint64_t handle, bool endsLine)
    : on_(SysLogFilter::level() <= level && SysLogFilter::state(handle)),
      endsLine_(endsLine),
      level_(level),
      handle_(handle) {}

LogRecord::~LogRecord() {
    SysLogStream& printer = SysLogStream::stdOutPrinter();
    if (on_) printer.begin(level_, SysLogFilter::id(handle_)).append(text_);
    // Also when this record is filtered out: the one that was left open for it must not swallow the thread's next.
    if (endsLine_) printer.end();
}

LogRecord& LogRecord::operator<<(std::string_view text) {
    if (on_) text_ += text;
    return *this;
}

LogRecord& LogRecord::number(std::uint64_t value) {
    if (on_) text_ += LogLine::number(value);
    return *this;
}
