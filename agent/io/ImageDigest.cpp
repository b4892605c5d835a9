#include "io/ImageDigest.h"

#include <algorithm>
#include <mutex>

#include "io/FileIo.h"

namespace hxagent::io {

namespace {

// SHA-256 of n zero bytes (n <= kBlockBytes); the full block's is computed once.
bool ZeroDigest(std::size_t n, Sha256Bytes& out) {
    static std::once_flag once;
    static Sha256Bytes full{};
    static bool fullOk = false;
    auto compute = [](std::size_t bytes, Sha256Bytes& into) {
        Sha256 sha;
        sha.UpdateZeros(bytes);
        return sha.Final(into);
    };
    if (n != kBlockBytes) return compute(n, out);
    std::call_once(once, [&] { fullOk = compute(kBlockBytes, full); });
    out = full;
    return fullOk;
}

}  // namespace

const char* DigestName(DigestKind kind) { return kind == DigestKind::kSha256 ? "SHA-256" : "block SHA-256"; }

Sha256::Sha256() : ctx_(EVP_MD_CTX_new()) { ok_ = ctx_ && EVP_DigestInit_ex(ctx_, EVP_sha256(), nullptr) == 1; }

Sha256::~Sha256() { EVP_MD_CTX_free(ctx_); }

void Sha256::Update(const void* data, std::size_t n) {
    if (ok_ && n) ok_ = EVP_DigestUpdate(ctx_, data, n) == 1;
}

void Sha256::UpdateZeros(std::uint64_t n) {
    static const unsigned char zeros[kGranule] = {};
    while (n > 0 && ok_) {
        const std::size_t step = static_cast<std::size_t>(std::min<std::uint64_t>(n, kGranule));
        Update(zeros, step);
        n -= step;
    }
}

bool Sha256::Final(Sha256Bytes& out) {
    unsigned len = 0;
    ok_ = ok_ && EVP_DigestFinal_ex(ctx_, out.data(), &len) == 1 && len == out.size();
    return ok_;
}

std::string Hex(const unsigned char* data, std::size_t n) {
    static const char* digits = "0123456789abcdef";
    std::string out;
    out.reserve(2 * n);
    for (std::size_t i = 0; i < n; ++i) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 15];
    }
    return out;
}

void ImageDigest::BlockHash::Update(const unsigned char* data, std::size_t n) {
    Sha256& sha = Target();
    sha.UpdateZeros(zeros_);
    length_ += zeros_ + n;
    zeros_ = 0;
    sha.Update(data, n);
    data_ = true;
}

bool ImageDigest::BlockHash::Finish(Sha256Bytes& out) {
    Sha256& sha = Target();
    if (!image_.parallel()) {
        sha.UpdateZeros(zeros_);
        return sha.ok();
    }
    if (!data_) return ZeroDigest(static_cast<std::size_t>(length_ + zeros_), out);
    sha.UpdateZeros(zeros_);
    return sha.Final(out);
}

void ImageDigest::Fold(const Sha256Bytes& blockDigest) {
    if (kind_ == DigestKind::kBlockSha256) whole_.Update(blockDigest.data(), blockDigest.size());
}

std::string ImageDigest::Finish() {
    Sha256Bytes md{};
    if (!whole_.Final(md)) return {};
    return Hex(md.data(), md.size());
}

}  // namespace hxagent::io
