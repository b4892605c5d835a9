#include "Manifest.h"

#include "hxutil/IsoTime.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace hxagent {

using nlohmann::json;

io::DigestKind DigestKindOf(const ManifestDisk& d) {
    return d.blockSha256.empty() ? io::DigestKind::kSha256 : io::DigestKind::kBlockSha256;
}

const std::string& DigestOf(const ManifestDisk& d) { return d.blockSha256.empty() ? d.sha256 : d.blockSha256; }

std::string ChecksumMismatch(const std::string& what, const ManifestDisk& d, const std::string& got) {
    return what + " does not match its checksum (" + io::DigestName(DigestKindOf(d)) + " " + got + ", manifest " +
           DigestOf(d) + "): the backup is damaged";
}

std::string ManifestToJson(const Manifest& m) {
    json disks = json::array();
    for (const auto& d : m.disks) {
        disks.push_back({{"id", d.id},
                         {"name", d.name},
                         {"isOSDisk", d.isOSDisk},
                         {"size", d.size},
                         {"diskSize", d.diskSize},
                         {"category", d.category},
                         {"performanceLevel", d.performanceLevel},
                         {"encrypted", d.encrypted},
                         {"zone", d.zone},
                         {"image", d.image},
                         {"dataBytes", d.dataBytes},
                         {"seconds", d.seconds}});
        disks.back()[d.blockSha256.empty() ? "sha256" : "blockSha256"] = DigestOf(d);
        if (!d.snapshot.empty()) disks.back()["snapshot"] = d.snapshot;
    }
    json doc = {{"format", kManifestFormat},
                {"version", m.version},
                {"instance",
                 {{"id", m.instanceId},
                  {"name", m.instanceName},
                  {"regionId", m.regionId},
                  {"zoneId", m.zoneId},
                  {"instanceType", m.instanceType},
                  {"guestOS", m.guestOS}}},
                {"jobStamp", m.jobStamp},
                {"jobId", m.jobId},
                {"configFile", m.configFile},
                {"disks", disks},
                {"timings",
                 {{"startedAt", m.startedAt},
                  {"finishedAt", m.finishedAt},
                  {"mountSeconds", m.mountSeconds},
                  {"copySeconds", m.copySeconds},
                  {"unmountSeconds", m.unmountSeconds},
                  {"totalSeconds", m.totalSeconds}}}};
    doc["origin"] = {{"proxyId", m.proxyId}, {"cloud", m.cloud}, {"agentVersion", m.agentVersion}};
    if (!m.backupKey.empty()) doc["repository"] = {{"backupKey", m.backupKey}, {"configSnapshot", m.configSnapshot}};
    return doc.dump(2) + "\n";
}

namespace {

// A bare file name: no separator, not "." or "..", not empty.
bool IsPlainName(const std::string& s) {
    return !s.empty() && s != "." && s != ".." && s.find('/') == std::string::npos &&
           s.find('\\') == std::string::npos;
}

bool IsHex64(const std::string& s) {
    if (s.size() != 64) return false;
    for (char c : s)
        if (!std::isxdigit(static_cast<unsigned char>(c)) || std::isupper(static_cast<unsigned char>(c))) return false;
    return true;
}

template <class T>
T Get(const json& j, const char* key, T fallback) {
    auto it = j.find(key);
    if (it == j.end() || it->is_null()) return fallback;
    return it->get<T>();
}

}  // namespace

bool ManifestFromJson(const std::string& text, Manifest& m, std::string& error) {
    json doc = json::parse(text, nullptr, false);
    if (doc.is_discarded() || !doc.is_object()) {
        error = "manifest is not JSON";
        return false;
    }
    try {
        if (Get<std::string>(doc, "format", "") != kManifestFormat) {
            error = "not an hxagent backup manifest";
            return false;
        }
        m = Manifest{};
        m.version = Get<int>(doc, "version", 0);
        if (m.version < kOldestManifestVersion || m.version > kManifestVersion) {
            error = "manifest version " + std::to_string(m.version) + " is not supported";
            return false;
        }
        const json& inst = doc.at("instance");
        m.instanceId = Get<std::string>(inst, "id", "");
        m.instanceName = Get<std::string>(inst, "name", "");
        m.regionId = Get<std::string>(inst, "regionId", "");
        m.zoneId = Get<std::string>(inst, "zoneId", "");
        m.instanceType = Get<std::string>(inst, "instanceType", "");
        m.guestOS = Get<std::string>(inst, "guestOS", "");
        m.jobStamp = Get<std::string>(doc, "jobStamp", "");
        m.jobId = Get<long long>(doc, "jobId", 0);
        m.configFile = Get<std::string>(doc, "configFile", "");
        if (m.instanceId.empty() || !IsPlainName(m.configFile)) {
            error = "manifest lacks the instance id or the configuration file name";
            return false;
        }
        for (const auto& d : doc.at("disks")) {
            ManifestDisk disk;
            disk.id = Get<std::string>(d, "id", "");
            disk.name = Get<std::string>(d, "name", "");
            disk.isOSDisk = Get<bool>(d, "isOSDisk", false);
            disk.size = Get<std::uint64_t>(d, "size", 0);
            disk.diskSize = Get<std::int64_t>(d, "diskSize", 0);
            disk.category = Get<std::string>(d, "category", "");
            disk.performanceLevel = Get<std::string>(d, "performanceLevel", "");
            disk.encrypted = Get<bool>(d, "encrypted", false);
            disk.zone = Get<std::string>(d, "zone", "");
            disk.image = Get<std::string>(d, "image", "");
            // Each version carries its own digest and only that one.
            const bool whole = m.version == 1;
            (whole ? disk.sha256 : disk.blockSha256) = Get<std::string>(d, whole ? "sha256" : "blockSha256", "");
            disk.dataBytes = Get<std::uint64_t>(d, "dataBytes", 0);
            disk.seconds = Get<double>(d, "seconds", 0);
            disk.snapshot = Get<std::string>(d, "snapshot", "");
            if (disk.id.empty() || !IsPlainName(disk.image) || !IsHex64(DigestOf(disk)) || disk.size == 0 ||
                disk.diskSize <= 0) {
                error = "manifest entry of disk '" + disk.id + "' is incomplete";
                return false;
            }
            m.disks.push_back(disk);
        }
        if (m.disks.empty()) {
            error = "manifest lists no disk";
            return false;
        }
        if (doc.contains("timings")) {
            const json& t = doc["timings"];
            m.startedAt = Get<std::string>(t, "startedAt", "");
            m.finishedAt = Get<std::string>(t, "finishedAt", "");
            m.mountSeconds = Get<double>(t, "mountSeconds", 0);
            m.copySeconds = Get<double>(t, "copySeconds", 0);
            m.unmountSeconds = Get<double>(t, "unmountSeconds", 0);
            m.totalSeconds = Get<double>(t, "totalSeconds", 0);
        }
        if (doc.contains("origin")) {
            const json& o = doc["origin"];
            m.proxyId = Get<std::string>(o, "proxyId", "");
            m.cloud = Get<std::string>(o, "cloud", "");
            m.agentVersion = Get<std::string>(o, "agentVersion", "");
        }
        if (doc.contains("repository")) {
            m.backupKey = Get<std::string>(doc["repository"], "backupKey", "");
            m.configSnapshot = Get<std::string>(doc["repository"], "configSnapshot", "");
        }
    } catch (const std::exception& e) {
        error = std::string("manifest field of the wrong type: ") + e.what();
        return false;
    }
    return true;
}

bool WriteManifest(const std::string& folder, const Manifest& m, std::string& error) {
    const std::string path = folder + "/" + kManifestName;
    const std::string tmp = path + ".tmp";
    const std::string text = ManifestToJson(m);
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        error = "cannot create " + tmp + ": " + std::strerror(errno);
        return false;
    }
    size_t put = 0;
    while (put < text.size()) {
        ssize_t w = ::write(fd, text.data() + put, text.size() - put);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) break;
        put += static_cast<size_t>(w);
    }
    bool ok = put == text.size() && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (!ok || ::rename(tmp.c_str(), path.c_str()) != 0) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        ::unlink(tmp.c_str());
        return false;
    }
    int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        ::fsync(dir);
        ::close(dir);
    }
    return true;
}

bool ReadManifest(const std::string& folder, Manifest& m, std::string& error) {
    const std::string path = folder + "/" + kManifestName;
    std::ifstream in(path);
    if (!in) {
        error = path + " is missing: not a complete backup folder";
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (!ManifestFromJson(text.str(), m, error)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

std::string JobStamp(std::int64_t unixSeconds) {
    return hxutil::CompactUtc(std::chrono::system_clock::time_point(std::chrono::seconds(unixSeconds)));
}

std::string IsoTime(std::int64_t unixSeconds) {
    return hxutil::IsoUtc(std::chrono::system_clock::time_point(std::chrono::seconds(unixSeconds)));
}

}  // namespace hxagent
