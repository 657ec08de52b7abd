#include "fakes/recorder.h"

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <ostream>

namespace quillon::fakes {
namespace {

struct Recorder
{
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Entry> entries;
    std::map<std::string, ModuleBehaviour> behaviours;
    std::map<std::string, std::vector<Bytes>> payloads;
};

// Never destroyed: threads and exit handlers of the code under test may still log.
Recorder& recorder()
{
    static auto* instance = new Recorder;
    return *instance;
}

unsigned int threadNumber()
{
    static std::atomic<unsigned int> count{0};
    thread_local const unsigned int number = ++count;
    return number;
}

bool isTwin(const Entry& log, const Entry& trace)
{
    return trace.kind == Kind::Trace && trace.priority == log.priority && trace.file == log.file &&
           trace.function == log.function && trace.line == log.line && trace.text == log.text;
}

// The trace directly follows its log line on the same thread; other threads may come in between.
const Entry* nextOfThread(const std::vector<Entry>& entries, std::size_t index)
{
    for (std::size_t i = index + 1; i < entries.size(); ++i) {
        if (entries[i].thread == entries[index].thread) {
            return &entries[i];
        }
    }
    return nullptr;
}

const Entry* previousOfThread(const std::vector<Entry>& entries, std::size_t index)
{
    for (std::size_t i = index; i-- > 0;) {
        if (entries[i].thread == entries[index].thread) {
            return &entries[i];
        }
    }
    return nullptr;
}

Entry mismatch(const char* what, const Entry& entry)
{
    Entry failure = entry;
    failure.kind = Kind::Mismatch;
    failure.text = std::string(what) + ": " + entry.text;
    return failure;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Entry& entry)
{
    switch (entry.kind) {
        case Kind::Log:
        case Kind::Trace:
            out << (entry.kind == Kind::Log ? "log " : "trace ") << entry.priority << " "
                << quoted(entry.text.c_str()) << " (" << entry.file << ":" << entry.line << ", "
                << entry.function << ")";
            break;
        case Kind::Call:
            out << "call " << entry.text;
            break;
        case Kind::Plugin:
            out << "plug-in " << entry.text;
            break;
        case Kind::Mismatch:
            out << "MISMATCH " << entry.text;
            break;
    }
    return out;
}

void record(Entry entry)
{
    // A sanitizer's allocator may make a recorded call of its own while the list grows.
    static thread_local bool isRecording = false;
    if (isRecording) {
        return;
    }
    isRecording = true;
    const int error = errno;
    entry.thread = threadNumber();
    {
        const std::lock_guard<std::mutex> lock(recorder().mutex);
        recorder().entries.push_back(std::move(entry));
    }
    recorder().changed.notify_all();
    errno = error;
    isRecording = false;
}

void recordCall(const std::string& text)
{
    Entry entry;
    entry.kind = Kind::Call;
    entry.text = text;
    record(std::move(entry));
}

void recordPlugin(const std::string& text)
{
    Entry entry;
    entry.kind = Kind::Plugin;
    entry.text = text;
    record(std::move(entry));
}

void note(const std::string& text)
{
    recordCall(text);
}

std::vector<Entry> wholeTimeline()
{
    const std::lock_guard<std::mutex> lock(recorder().mutex);
    return recorder().entries;
}

std::vector<Entry> timeline()
{
    const std::vector<Entry> whole = wholeTimeline();
    std::vector<Entry> result;
    for (std::size_t i = 0; i < whole.size(); ++i) {
        const Entry& entry = whole[i];
        if (entry.kind == Kind::Trace) {
            const Entry* before = previousOfThread(whole, i);
            if (before == nullptr || before->kind != Kind::Log) {
                result.push_back(mismatch("a trace without its log line", entry));
            }
            continue;
        }
        result.push_back(entry);
        if (entry.kind == Kind::Log) {
            const Entry* next = nextOfThread(whole, i);
            if (next == nullptr || !isTwin(entry, *next)) {
                result.push_back(mismatch("a log line without the same trace behind it", entry));
            }
        }
    }
    return result;
}

std::string mismatches()
{
    std::string texts;
    for (const Entry& entry : timeline()) {
        if (entry.kind == Kind::Mismatch) {
            texts += entry.text + "\n";
        }
    }
    return texts;
}

void clear()
{
    const std::lock_guard<std::mutex> lock(recorder().mutex);
    recorder().entries.clear();
}

bool waitForText(const std::string& text, std::chrono::milliseconds limit)
{
    // By the system clock: the monotonic one may be the test's own.
    const auto end = std::chrono::system_clock::now() + limit;
    std::unique_lock<std::mutex> lock(recorder().mutex);
    return recorder().changed.wait_until(lock, end, [&text] {
        for (const Entry& entry : recorder().entries) {
            if (entry.kind != Kind::Trace && entry.text == text) {
                return true;
            }
        }
        return false;
    });
}

std::string quoted(const char* text)
{
    return text == nullptr ? "null" : quoted(text, std::strlen(text));
}

std::string quoted(const char* text, std::size_t size)
{
    std::string result = "\"";
    for (std::size_t i = 0; i < size; ++i) {
        switch (text[i]) {
            case '\0':
                result += "\\0";
                break;
            case '\n':
                result += "\\n";
                break;
            case '"':
                result += "\\\"";
                break;
            case '\\':
                result += "\\\\";
                break;
            default:
                result += text[i];
        }
    }
    return result + "\"";
}

void setBehaviour(const std::string& name, ModuleBehaviour behaviour)
{
    const std::lock_guard<std::mutex> lock(recorder().mutex);
    recorder().behaviours[name] = std::move(behaviour);
}

const ModuleBehaviour* behaviourOf(const std::string& name)
{
    const std::lock_guard<std::mutex> lock(recorder().mutex);
    return &recorder().behaviours[name];
}

void recordPayload(const std::string& name, const unsigned char* data, int length)
{
    const std::lock_guard<std::mutex> lock(recorder().mutex);
    recorder().payloads[name].emplace_back(data, data + length);
}

std::vector<Bytes> payloadsOf(const std::string& name)
{
    const std::lock_guard<std::mutex> lock(recorder().mutex);
    return recorder().payloads[name];
}

}  // namespace quillon::fakes
