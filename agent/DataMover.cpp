#include "DataMover.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "io/BlockPipeline.h"
#include "io/Endpoints.h"
#include "io/FileIo.h"

namespace hxagent {

using io::Fd;
using io::Why;

std::int64_t DeviceOrFileSize(const std::string& path, std::string& error) {
    Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.ok()) {
        error = Why("cannot open", path);
        return -1;
    }
    struct stat st{};
    if (::fstat(fd.get(), &st) != 0) {
        error = Why("cannot stat", path);
        return -1;
    }
    if (S_ISREG(st.st_mode)) return static_cast<std::int64_t>(st.st_size);
    if (S_ISBLK(st.st_mode)) {
        std::uint64_t bytes = 0;
        if (::ioctl(fd.get(), BLKGETSIZE64, &bytes) != 0) {
            error = Why("cannot size block device", path);
            return -1;
        }
        return static_cast<std::int64_t>(bytes);
    }
    error = path + " is neither a block device nor a regular file";
    return -1;
}

MoveResult ReadToImage(const std::string& source, std::uint64_t size, const std::string& image,
                       const MoveOptions& options) {
    MoveResult r;
    Fd src = io::OpenSequentialSource(source, r.error);
    if (!src.ok()) return r;
    Fd dst(::open(image.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!dst.ok()) {
        r.error = Why("cannot create", image);
        return r;
    }
    // Sized first: everything not written afterwards stays a hole.
    if (::ftruncate(dst.get(), static_cast<off_t>(size)) != 0) {
        r.error = Why("cannot size", image);
        return r;
    }
    io::FileSource from(src.get(), source);
    io::GranuleSink to(dst.get(), image);
    r = io::RunPipeline(from, &to, size, options);
    io::FinishOutput(dst, image, options, r);
    return r;
}

MoveResult WriteImageToDevice(const std::string& image, const std::string& target, const MoveOptions& options) {
    MoveResult r;
    std::string error;
    const std::int64_t imageSize = DeviceOrFileSize(image, error);
    const std::int64_t targetSize = imageSize < 0 ? -1 : DeviceOrFileSize(target, error);
    if (targetSize < 0) {
        r.error = error;
        return r;
    }
    if (targetSize < imageSize) {
        r.error = "target " + target + " holds " + std::to_string(targetSize) + " bytes, the image " + image +
                  " needs " + std::to_string(imageSize);
        return r;
    }
    Fd src = io::OpenSequentialSource(image, r.error);
    if (!src.ok()) return r;
    Fd dst(::open(target.c_str(), O_WRONLY | O_CLOEXEC));
    if (!dst.ok()) {
        r.error = Why("cannot open for writing", target);
        return r;
    }
    io::FileSource from(src.get(), image);
    io::GranuleSink to(dst.get(), target);
    r = io::RunPipeline(from, &to, static_cast<std::uint64_t>(imageSize), options);
    io::FinishOutput(dst, target, options, r);
    return r;
}

MoveResult HashFile(const std::string& path, const MoveOptions& options) {
    MoveResult r;
    const std::int64_t size = DeviceOrFileSize(path, r.error);
    if (size < 0) return r;
    Fd src = io::OpenSequentialSource(path, r.error);
    if (!src.ok()) return r;
    io::FileSource from(src.get(), path);
    return io::RunPipeline(from, nullptr, static_cast<std::uint64_t>(size), options);
}

bool SameContent(const std::string& a, const std::string& b, std::uint64_t size, std::string& error) {
    Fd fa(::open(a.c_str(), O_RDONLY | O_CLOEXEC));
    Fd fb(::open(b.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fa.ok() || !fb.ok()) {
        error = Why("cannot open", fa.ok() ? b : a);
        return false;
    }
    io::Buffer ba = io::AllocateBuffer(kChunkBytes), bb = io::AllocateBuffer(kChunkBytes);
    if (!ba || !bb) {
        error = "out of memory";
        return false;
    }
    std::uint64_t off = 0;
    while (off < size) {
        // Ranges that are holes in both files are equal without reading them.
        const std::uint64_t next = std::min(io::NextData(fa.get(), off, size), io::NextData(fb.get(), off, size));
        if (next >= size) break;
        off = next;
        const size_t n = static_cast<size_t>(std::min(size - off, kChunkBytes));
        if (!io::ReadAt(fa.get(), ba.get(), n, off)) {
            error = Why("cannot read", a);
            return false;
        }
        if (!io::ReadAt(fb.get(), bb.get(), n, off)) {
            error = Why("cannot read", b);
            return false;
        }
        if (std::memcmp(ba.get(), bb.get(), n) != 0) return false;
        off += n;
    }
    return true;
}

}  // namespace hxagent
