#include "LogSink.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <mutex>

#include "FsUtil.h"
#include "Settings.h"
#include "hxruntime/HostApi.h"
#include "hxutil/IsoTime.h"

namespace hxruntime::detail {

namespace {

void AppendSanitized(std::string& out, const char* s, size_t n) {
    while (n > 0 && (s[n - 1] == '\n' || s[n - 1] == '\r')) --n;
    for (size_t i = 0; i < n; ++i) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c == '\n') out += "\\n";
        else if (c == '\r') out += "\\r";
        else if ((c < 0x20 && c != '\t') || c == 0x7f) out += '?';
        else out += static_cast<char>(c);
    }
}

bool WriteAll(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// The open log file of this process. One mutex orders the threads; flock orders processes.
class FileSink {
public:
    // False when the line could not be written (the caller then falls back to stderr).
    bool Write(const std::string& path, const std::string& line, std::uint64_t maxBytes, int keep) {
        std::lock_guard lock(mu_);
        if (path != path_) CloseLocked();
        path_ = path;
        for (int attempt = 0; attempt < 3; ++attempt) {
            if (fd_ < 0 && !OpenLocked()) return false;
            while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
            }
            struct stat mine{}, named{};
            bool same = ::fstat(fd_, &mine) == 0 && ::stat(path_.c_str(), &named) == 0 &&
                        mine.st_ino == named.st_ino && mine.st_dev == named.st_dev;
            if (!same) {  // rotated or removed by someone else: follow the name
                CloseLocked();
                continue;
            }
            if (mine.st_size > 0 && static_cast<std::uint64_t>(mine.st_size) + line.size() > maxBytes) {
                RotateLocked(keep);  // renames while we still hold the lock of the old file
                CloseLocked();
                continue;
            }
            bool written = WriteAll(fd_, line);
            ::flock(fd_, LOCK_UN);
            return written;
        }
        return false;
    }

    void Close() {
        std::lock_guard lock(mu_);
        CloseLocked();
    }

private:
    bool OpenLocked() {
        fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (fd_ < 0 && errno == ENOENT && MakeDirectories(ParentOf(path_), 0700))
            fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        return fd_ >= 0;
    }

    void CloseLocked() {
        if (fd_ >= 0) ::close(fd_);  // also drops a flock we may hold
        fd_ = -1;
    }

    void RotateLocked(int keep) {
        if (keep <= 0) {
            ::unlink(path_.c_str());
            return;
        }
        ::unlink((path_ + "." + std::to_string(keep)).c_str());
        for (int i = keep - 1; i >= 1; --i)
            ::rename((path_ + "." + std::to_string(i)).c_str(), (path_ + "." + std::to_string(i + 1)).c_str());
        ::rename(path_.c_str(), (path_ + ".1").c_str());
    }

    std::mutex mu_;
    std::string path_;
    int fd_ = -1;
};

FileSink& Sink() {
    static FileSink* sink = new FileSink;  // never destroyed: lines may come from static destructors
    return *sink;
}

}  // namespace

std::string FormatLogLine(const timespec& when, long pid, long tid, long long jobId, bool error, int level,
                          const char* tag, const std::string& text) {
    const std::string stamp = hxutil::IsoLocalMillis(std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::seconds(when.tv_sec) +
                                                                        std::chrono::nanoseconds(when.tv_nsec))));

    std::string line;
    line.reserve(96 + text.size());
    line += stamp;
    line += ' ';
    line += std::to_string(pid);
    line += ' ';
    line += std::to_string(tid);
    line += ' ';
    line += jobId == kNoJobId ? std::string("-") : std::to_string(jobId);
    line += error ? " ERROR [" : " DEBUG" + std::to_string(level) + " [";
    const char* t = tag ? tag : "(null)";
    AppendSanitized(line, t, std::char_traits<char>::length(t));
    line += "] ";
    AppendSanitized(line, text.data(), text.size());
    line += '\n';
    return line;
}

void EmitLogLine(bool error, int level, const char* tag, const std::string& text) {
    try {
        LogSettings s = CurrentLogSettings();
        timespec now{};
        ::clock_gettime(CLOCK_REALTIME, &now);
        std::string line = FormatLogLine(now, static_cast<long>(::getpid()), static_cast<long>(::gettid()), s.jobId,
                                         error, level, tag, text);
        std::string path = LogFilePathFor(s);
        bool filed = !path.empty() && Sink().Write(path, line, s.maxBytes, s.keepFiles);
        if (s.echo || (error && !filed)) WriteAll(STDERR_FILENO, line);
    } catch (...) {
        // Logging must never take the caller down.
    }
}

}  // namespace hxruntime::detail

void hxruntime::CloseLog() {
    try {
        detail::Sink().Close();
    } catch (...) {
    }
}
