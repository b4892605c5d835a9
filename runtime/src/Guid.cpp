// Identity services: GUIDs and the focus name.
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <random>

#include "FxUtil.h"
#include "hxruntime/HostApi.h"

namespace {

// Fills `buf` from the kernel's CSPRNG; /dev/urandom when getrandom is unavailable.
bool SecureRandom(unsigned char* buf, size_t n) {
    size_t done = 0;
    while (done < n) {
        ssize_t got = ::getrandom(buf + done, n - done, 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            break;
        }
        done += static_cast<size_t>(got);
    }
    if (done == n) return true;
    int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    done = 0;
    while (done < n) {
        ssize_t got = ::read(fd, buf + done, n - done);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += static_cast<size_t>(got);
    }
    ::close(fd);
    return done == n;
}

}  // namespace

// RFC 4122 version 4: 122 random bits, version nibble 4, variant bits 10.
std::string CreateGuid() {
    unsigned char b[16];
    if (!SecureRandom(b, sizeof b)) {
        // No kernel randomness at all (no getrandom, no /dev/urandom): still unique enough to
        // name a restore, though not unpredictable.
        std::random_device rd;
        for (auto& c : b) c = static_cast<unsigned char>(rd());
    }
    b[6] = static_cast<unsigned char>((b[6] & 0x0f) | 0x40);
    b[8] = static_cast<unsigned char>((b[8] & 0x3f) | 0x80);
    char out[37];
    std::snprintf(out, sizeof out, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0], b[1],
                  b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
    return std::string(out, 36);
}

std::string HXPI_Focus::getFocus() { return hxruntime::GetFocusName(); }
