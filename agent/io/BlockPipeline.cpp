#include "io/BlockPipeline.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "io/FileIo.h"

namespace hxagent::io {

namespace {

struct Folding {
    Sha256Bytes digest{};
    bool done = false;
};

class Pipeline {
public:
    Pipeline(BlockSource& source, BlockSink* sink, std::uint64_t size, const MoveOptions& options)
        : source_(source), sink_(sink), size_(size), options_(options), digest_(options.digest),
          blocks_((size + kBlockBytes - 1) / kBlockBytes), window_(kFoldWindow) {}

    MoveResult Run() {
        const auto started = std::chrono::steady_clock::now();
        const bool single = !digest_.parallel() || source_.ordered() || (sink_ && sink_->ordered());
        const int workers = single ? 1 : kParallelWorkers;
        std::vector<std::uint64_t> stored(static_cast<size_t>(workers), 0);
        std::vector<std::thread> threads;
        for (int i = 0; i < workers; ++i) threads.emplace_back([this, &stored, i] { Work(stored[i]); });
        Supervise();
        for (auto& t : threads) t.join();

        MoveResult r;
        r.digestKind = digest_.kind();
        for (auto s : stored) r.dataBytes += s;
        if (!failed_) {
            r.digest = digest_.Finish();
            if (r.digest.empty()) Fail("SHA-256 computation failed");
        }
        r.ok = !failed_;
        r.error = error_;
        r.cancelled = cancelled_;
        if (r.ok) {
            r.bytes = size_;
            if (options_.progress) options_.progress(size_, size_);
        }
        r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        return r;
    }

private:
    // Records the first failure; every worker stops at its next block. Caller holds mu_ or
    // is the only thread left.
    void Fail(const std::string& error, bool cancelled = false) {
        if (failed_) return;
        failed_ = true;
        error_ = error;
        cancelled_ = cancelled;
    }
    void FailLocked(const std::string& error, bool cancelled = false) {
        {
            std::lock_guard<std::mutex> lock(mu_);
            Fail(error, cancelled);
        }
        cv_.notify_all();
    }

    // The calling thread: reports progress and polls the cancel callback until the last
    // block is folded or a worker failed.
    void Supervise() {
        std::unique_lock<std::mutex> lock(mu_);
        while (!failed_ && folded_ < blocks_) {
            cv_.wait_for(lock, std::chrono::milliseconds(50));
            const std::uint64_t done = std::min(folded_ * kBlockBytes, size_);
            lock.unlock();
            const bool cancel = options_.cancelled && options_.cancelled();
            if (!cancel && options_.progress) options_.progress(done, size_);
            lock.lock();
            if (cancel) Fail("cancelled", true);
        }
        lock.unlock();
        cv_.notify_all();
    }

    void Work(std::uint64_t& stored) {
        Buffer buf = AllocateBuffer(kPieceBytes);
        if (!buf) {
            FailLocked("cannot allocate the copy buffer");
            return;
        }
        for (;;) {
            std::uint64_t block = 0;
            {
                std::unique_lock<std::mutex> lock(mu_);
                cv_.wait(lock, [&] { return failed_ || next_ >= blocks_ || next_ < folded_ + window_.size(); });
                if (failed_ || next_ >= blocks_) return;
                block = next_++;
            }
            Sha256Bytes digest{};
            std::string error;
            if (!MoveBlock(block, buf.get(), digest, stored, error)) {
                FailLocked(error);
                return;
            }
            {
                std::lock_guard<std::mutex> lock(mu_);
                window_[block % window_.size()] = {digest, true};
                // Fold every finished block in order; a block finished early waits here.
                for (Folding* f = &window_[folded_ % window_.size()]; folded_ < blocks_ && f->done;
                     f = &window_[folded_ % window_.size()]) {
                    digest_.Fold(f->digest);
                    f->done = false;
                    ++folded_;
                }
            }
            cv_.notify_all();
        }
    }

    // Reads, hashes and writes one block, piece by piece; `digest` receives its digest.
    bool MoveBlock(std::uint64_t block, unsigned char* buf, Sha256Bytes& digest, std::uint64_t& stored,
                   std::string& error) {
        const std::uint64_t off = block * kBlockBytes;
        const auto n = static_cast<std::size_t>(std::min(kBlockBytes, size_ - off));
        ImageDigest::BlockHash hash(digest_);
        if (source_.HoleBytes(off, off + n) >= n) {
            hash.Zeros(n);
            if (sink_ && !sink_->Write(off, nullptr, n, 0, stored, error)) return false;
        } else {
            for (std::size_t at = 0; at < n; at += kPieceBytes) {
                const std::size_t len = std::min(kPieceBytes, n - at);
                if (!source_.Read(off + at, len, buf, error)) return false;
                const std::uint64_t nonZero = NonZeroGranules(buf, len);
                if (nonZero) hash.Update(buf, len);
                else hash.Zeros(len);
                if (sink_ && !sink_->Write(off + at, nonZero ? buf : nullptr, len, nonZero, stored, error))
                    return false;
            }
        }
        if (hash.Finish(digest)) return true;
        error = "SHA-256 computation failed";
        return false;
    }

    BlockSource& source_;
    BlockSink* sink_;
    const std::uint64_t size_;
    const MoveOptions& options_;
    ImageDigest digest_;
    const std::uint64_t blocks_;

    std::mutex mu_;  // guards what follows
    std::condition_variable cv_;
    std::uint64_t next_ = 0;    // the next block a worker takes
    std::uint64_t folded_ = 0;  // blocks folded into the digest, in order
    std::vector<Folding> window_;  // block b's digest at b % size until folded
    bool failed_ = false, cancelled_ = false;
    std::string error_;
};

}  // namespace

MoveResult RunPipeline(BlockSource& source, BlockSink* sink, std::uint64_t size, const MoveOptions& options) {
    return Pipeline(source, sink, size, options).Run();
}

}  // namespace hxagent::io
