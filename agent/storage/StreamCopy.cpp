#include "storage/StreamCopy.h"

#include <fcntl.h>
#include <unistd.h>

#include "io/BlockPipeline.h"
#include "io/Endpoints.h"
#include "io/FileIo.h"

namespace hxagent {

using io::Fd;
using io::Why;

MoveResult DeviceToStream(const std::string& source, std::uint64_t size, int fd, const std::string& fdName,
                          const MoveOptions& options) {
    MoveResult r;
    Fd src = io::OpenSequentialSource(source, r.error);
    if (!src.ok()) return r;
    io::FileSource from(src.get(), source);
    io::StreamSink to(fd, fdName);
    return io::RunPipeline(from, &to, size, options);
}

MoveResult StreamToDevice(int fd, const std::string& fdName, std::uint64_t size, const std::string& target,
                          const MoveOptions& options) {
    MoveResult r;
    Fd dst(target.empty() ? -1 : ::open(target.c_str(), O_WRONLY | O_CLOEXEC));
    if (!target.empty() && !dst.ok()) {
        r.error = Why("cannot open for writing", target);
        return r;
    }
    if (dst.ok()) {
        const off_t end = ::lseek(dst.get(), 0, SEEK_END);
        if (end >= 0 && static_cast<std::uint64_t>(end) < size) {
            r.error = "target " + target + " holds " + std::to_string(end) + " bytes, the disk needs " +
                      std::to_string(size);
            return r;
        }
    }
    io::StreamSource from(fd, fdName, size);
    io::GranuleSink to(dst.get(), target);
    r = io::RunPipeline(from, dst.ok() ? &to : nullptr, size, options);
    unsigned char extra = 0;
    if (r.ok && io::ReadStream(fd, &extra, 1) > 0) {
        r.ok = false;
        r.error = fdName + " holds more than the " + std::to_string(size) + " bytes of the disk";
    }
    if (dst.ok()) io::FinishOutput(dst, target, options, r);
    return r;
}

}  // namespace hxagent
