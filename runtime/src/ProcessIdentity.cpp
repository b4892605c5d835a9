#include "ProcessIdentity.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <string>

#include "FxUtil.h"
#include "hxruntime/HostApi.h"

namespace hxruntime::detail {

namespace {

struct StatFields {
    char state = '?';
    std::uint64_t startTicks = 0;
};

// Parses /proc/<pid>/stat. The command name (field 2) may hold blanks and parentheses, so
// fields are counted from the last ')'.
bool ReadStat(long pid, StatFields& out) {
    std::string text;
    if (!ReadWholeFile("/proc/" + std::to_string(pid) + "/stat", text)) return false;
    size_t close = text.rfind(')');
    if (close == std::string::npos) return false;
    // After ')': " <state(3)> <ppid(4)> ... <starttime(22)>"
    size_t pos = close + 1;
    int field = 2;
    while (field < 22) {
        while (pos < text.size() && text[pos] == ' ') ++pos;
        if (pos >= text.size()) return false;
        ++field;
        size_t end = text.find(' ', pos);
        if (end == std::string::npos) end = text.size();
        if (field == 3) out.state = text[pos];
        if (field == 22) {
            char* stop = nullptr;
            errno = 0;
            unsigned long long v = std::strtoull(text.c_str() + pos, &stop, 10);
            if (errno != 0 || stop == text.c_str() + pos) return false;
            out.startTicks = v;
        }
        pos = end;
    }
    return true;
}

std::string ReadBootId() {
    std::string id;
    if (!ReadWholeFile("/proc/sys/kernel/random/boot_id", id)) return {};
    while (!id.empty() && (id.back() == '\n' || id.back() == ' ')) id.pop_back();
    return id;
}

}  // namespace

ProcessIdentity CurrentProcess() {
    static std::mutex mu;
    static ProcessIdentity cached;
    std::lock_guard lock(mu);
    long pid = static_cast<long>(::getpid());
    if (cached.pid != pid) {
        ProcessIdentity me;
        me.pid = pid;
        StatFields st;
        if (ReadStat(pid, st)) me.startTicks = st.startTicks;
        me.bootId = ReadBootId();
        cached = me;
    }
    return cached;
}

bool IsProcessRunning(const ProcessIdentity& owner) {
    if (owner.pid <= 0) return false;
    std::string boot = ReadBootId();
    if (!owner.bootId.empty() && !boot.empty() && owner.bootId != boot) return false;
    StatFields st;
    if (ReadStat(owner.pid, st)) {
        if (st.state == 'Z' || st.state == 'X') return false;
        return owner.startTicks == 0 || st.startTicks == owner.startTicks;
    }
    StatFields self;
    if (ReadStat(static_cast<long>(::getpid()), self)) return false;  // /proc works: the pid is gone
    return ::kill(static_cast<pid_t>(owner.pid), 0) == 0 || errno == EPERM;
}

}  // namespace hxruntime::detail

// ---- host API: process tags ----

namespace hxruntime {

std::string CurrentProcessTag() {
    const detail::ProcessIdentity me = detail::CurrentProcess();
    return std::to_string(me.pid) + "." + std::to_string(me.startTicks) + "." + me.bootId;
}

bool IsProcessTagRunning(const std::string& tag) {
    detail::ProcessIdentity owner;
    const auto first = tag.find('.');
    const auto second = first == std::string::npos ? std::string::npos : tag.find('.', first + 1);
    if (second == std::string::npos) return false;
    try {
        size_t used = 0;
        owner.pid = std::stol(tag.substr(0, first), &used);
        if (used != first || owner.pid <= 0) return false;
        owner.startTicks = std::stoull(tag.substr(first + 1, second - first - 1), &used);
        if (used != second - first - 1) return false;
    } catch (...) {
        return false;
    }
    owner.bootId = tag.substr(second + 1);
    return detail::IsProcessRunning(owner);
}

}  // namespace hxruntime
