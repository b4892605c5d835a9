// The sources and sinks of the data path's pipeline (io/BlockPipeline.h): files and block
// devices by offset, pipes in order. None owns its descriptor; every error names the path
// (or the pipe's reader/writer) and the system's reason.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "io/BlockPipeline.h"
#include "io/FileIo.h"

namespace hxagent::io {

// A file or block device read with pread, from any thread. Holes are what SEEK_DATA reports
// (the descriptor's offset moves, pread ignores it); block devices and file systems without
// it report none.
class FileSource : public BlockSource {
public:
    FileSource(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
    bool ordered() const override { return false; }
    std::uint64_t HoleBytes(std::uint64_t off, std::uint64_t end) override;
    bool Read(std::uint64_t off, std::size_t n, unsigned char* buf, std::string& error) override;

private:
    int fd_;
    std::string path_;
};

// A pipe holding exactly the bytes of the disk, in order; it has no holes.
class StreamSource : public BlockSource {
public:
    StreamSource(int fd, std::string name, std::uint64_t size) : fd_(fd), name_(std::move(name)), size_(size) {}
    bool ordered() const override { return true; }
    std::uint64_t HoleBytes(std::uint64_t, std::uint64_t) override { return 0; }
    // Fails when the stream ends before `size` bytes.
    bool Read(std::uint64_t off, std::size_t n, unsigned char* buf, std::string& error) override;

private:
    int fd_;
    std::string name_;
    std::uint64_t size_;
};

// A sparse image or a fresh disk: only the non-zero granules are written (pwrite, from any
// thread), at their offsets. The file must read as zeros wherever nothing is written (sized
// with ftruncate, or new).
// Decision: one write at a time per sink. The kernel takes the file's inode lock for every
// buffered write anyway, and a second writer then spins on that lock while the first copies
// into the page cache: with two workers that spinning was a sixth of a backup's CPU
// (perf, 4 disks). A writer waiting here sleeps instead, and the core goes to the other
// worker's read and hash.
class GranuleSink : public BlockSink {
public:
    GranuleSink(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
    bool ordered() const override { return false; }
    bool Write(std::uint64_t off, const unsigned char* data, std::size_t n, std::uint64_t nonZero,
               std::uint64_t& stored, std::string& error) override;

private:
    int fd_;
    std::string path_;
    std::mutex writing_;
};

// A pipe that receives the full logical content, zeros included.
class StreamSink : public BlockSink {
public:
    StreamSink(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}
    bool ordered() const override { return true; }
    bool Write(std::uint64_t off, const unsigned char* data, std::size_t n, std::uint64_t nonZero,
               std::uint64_t& stored, std::string& error) override;

private:
    int fd_;
    std::string name_;
};

// Makes a finished output durable: fsync and close now, or through options.sync. On a
// failure `r` turns into it ("cannot flush <path>").
void FinishOutput(Fd& out, const std::string& path, const MoveOptions& options, MoveResult& r);

}  // namespace hxagent::io
