#include "io/Endpoints.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "io/BackgroundSync.h"

namespace hxagent::io {

std::uint64_t FileSource::HoleBytes(std::uint64_t off, std::uint64_t end) {
    const std::uint64_t data = NextData(fd_, off, end);
    if (data < end) return data - off;
    // Only holes up to `end`. Past the end of the file is not a hole: a file or device
    // shorter than the disk must fail the read, not pass for zeros.
    struct stat st{};
    if (::fstat(fd_, &st) != 0 || static_cast<std::uint64_t>(st.st_size) <= off) return 0;
    return std::min<std::uint64_t>(static_cast<std::uint64_t>(st.st_size), end) - off;
}

bool FileSource::Read(std::uint64_t off, std::size_t n, unsigned char* buf, std::string& error) {
    if (ReadAt(fd_, buf, n, off)) return true;
    error = Why("cannot read", path_);
    return false;
}

bool StreamSource::Read(std::uint64_t off, std::size_t n, unsigned char* buf, std::string& error) {
    const long long got = ReadStream(fd_, buf, n);
    if (got < 0) {
        error = Why("cannot read from", name_);
        return false;
    }
    if (static_cast<std::size_t>(got) != n) {
        error = name_ + " ended after " + std::to_string(off + static_cast<std::uint64_t>(got)) +
                " bytes; the disk holds " + std::to_string(size_);
        return false;
    }
    return true;
}

bool GranuleSink::Write(std::uint64_t off, const unsigned char* data, std::size_t n, std::uint64_t nonZero,
                        std::uint64_t& stored, std::string& error) {
    if (!data) return true;
    std::lock_guard<std::mutex> lock(writing_);
    if (WriteGranules(fd_, data, n, nonZero, off, stored)) return true;
    error = Why("cannot write", path_);
    return false;
}

bool StreamSink::Write(std::uint64_t, const unsigned char* data, std::size_t n, std::uint64_t,
                       std::uint64_t& stored, std::string& error) {
    const bool ok = data ? WriteStream(fd_, data, n) : WriteZerosToStream(fd_, n);
    if (!ok) {
        error = Why("cannot stream to", name_);
        return false;
    }
    if (data) stored += n;
    return true;
}

void FinishOutput(Fd& out, const std::string& path, const MoveOptions& options, MoveResult& r) {
    if (!r.ok) return;
    if (options.sync) {
        options.sync->Add(out.Release(), path);
        return;
    }
    const bool synced = ::fsync(out.get()) == 0;
    const bool closed = out.Close();
    if (!synced || !closed) {
        r.ok = false;
        r.error = Why("cannot flush", path);
    }
}

}  // namespace hxagent::io
