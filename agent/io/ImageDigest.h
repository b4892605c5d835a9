// The checksum a backup records for each disk image, and the accumulator that computes it.
//
// Decision: new backups record a block digest ("blockSha256"), not the SHA-256 of the whole
// image. The image is cut into 4 MiB blocks at 4 MiB offsets (the last one may be shorter);
// each block's SHA-256 is taken, and the digest is the SHA-256 of those 32-byte block digests
// in order. Why: a whole-image SHA-256 is one sequential computation over the full logical
// size, holes included; at about 1.7 GB/s on one core (SHA-NI) it alone made a backup of a
// half-empty disk slower than `cp --sparse=always`. With blocks, a hole or an all-zero block
// costs nothing (its digest is a known constant), and the blocks of data are hashed on
// several cores while the disk is read and written. It is still reproducible with standard
// tools (see the README's backup format section), and it is checked by `hxagent verify` and
// by every restore, in the pass that writes the disk.
// Manifests written before carry "sha256" (the whole image, equal to `sha256sum`); those are
// still verified and restored, with DigestKind::kSha256.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include <openssl/evp.h>

namespace hxagent::io {

// Size of a digest block, and of the data path's reads.
inline constexpr std::uint64_t kBlockBytes = 4ull << 20;

enum class DigestKind {
    kBlockSha256,  // SHA-256 over the SHA-256 of every 4 MiB block (what backups record)
    kSha256,       // SHA-256 of the whole content (older backups; equals `sha256sum`)
};
// "block SHA-256" / "SHA-256": how error messages name a kind.
const char* DigestName(DigestKind kind);

using Sha256Bytes = std::array<unsigned char, 32>;

// One SHA-256 computation (OpenSSL EVP). Not thread-safe; ok() false once any step failed.
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;
    bool ok() const { return ok_; }
    void Update(const void* data, std::size_t n);
    // Adds n zero bytes.
    void UpdateZeros(std::uint64_t n);
    // Ends the computation; false when any step failed.
    bool Final(Sha256Bytes& out);

private:
    EVP_MD_CTX* ctx_;
    bool ok_ = false;
};

std::string Hex(const unsigned char* data, std::size_t n);

// Computes an image's digest from its blocks (kBlockBytes each, the last one shorter).
//
// Each block is hashed through a BlockHash; for kBlockSha256 several may run at once on
// different threads, for kSha256 (one sequential computation) only one at a time, in block
// order. Fold(...) takes the block digests in block order, on one thread at a time.
class ImageDigest {
public:
    explicit ImageDigest(DigestKind kind) : kind_(kind) {}
    DigestKind kind() const { return kind_; }
    // Whether several blocks may be hashed at once.
    bool parallel() const { return kind_ == DigestKind::kBlockSha256; }

    class BlockHash {
    public:
        explicit BlockHash(ImageDigest& image) : image_(image) {}
        // The next n bytes of the block are zeros: hashed only if data follows them, so a
        // block of zeros costs nothing.
        void Zeros(std::uint64_t n) { zeros_ += n; }
        void Update(const unsigned char* data, std::size_t n);
        // The block's digest, for Fold. False when a hash step failed.
        bool Finish(Sha256Bytes& out);

    private:
        Sha256& Target() { return image_.parallel() ? own_ : image_.whole_; }
        ImageDigest& image_;
        Sha256 own_;                // kBlockSha256: this block's hash
        std::uint64_t zeros_ = 0;   // zero bytes not hashed yet
        std::uint64_t length_ = 0;  // bytes of the block so far
        bool data_ = false;         // a non-zero byte was seen
    };

    void Fold(const Sha256Bytes& blockDigest);
    // The lowercase hex digest; empty when a step failed. Call once, after the last block.
    std::string Finish();

private:
    DigestKind kind_;
    Sha256 whole_;  // kSha256: the content; kBlockSha256: the block digests
};

}  // namespace hxagent::io
