#include "storage/RepositoryStore.h"

#include <unistd.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "hxutil/Random.h"
#include "storage/StreamCopy.h"

namespace hxagent {

using nlohmann::json;

namespace {

// The last "summary" line of `restic backup --json`.
bool ParseBackupSummary(const std::string& out, std::string& snapshot, std::uint64_t& added) {
    std::istringstream lines(out);
    std::string line;
    bool found = false;
    while (std::getline(lines, line)) {
        json j = json::parse(line, nullptr, false);
        if (j.is_discarded() || !j.is_object() || j.value("message_type", "") != "summary") continue;
        snapshot = j.value("snapshot_id", "");
        added = j.value("data_added", std::uint64_t{0});
        found = !snapshot.empty();
    }
    return found;
}

constexpr const char* kPartTime = "2000-01-01 00:00:00";

std::vector<std::string> TagArgs(const std::vector<std::string>& tags) {
    std::vector<std::string> args;
    for (const auto& t : tags) args.insert(args.end(), {"--tag", t});
    return args;
}

}  // namespace

std::string RepoSnapshot::Tag(const std::string& prefix) const {
    for (const auto& t : tags)
        if (t.size() > prefix.size() && t.compare(0, prefix.size() + 1, prefix + ":") == 0)
            return t.substr(prefix.size() + 1);
    return {};
}

bool ParseSnapshots(const std::string& text, std::vector<RepoSnapshot>& out, std::string& error) {
    json doc = json::parse(text, nullptr, false);
    if (doc.is_discarded() || !(doc.is_array() || doc.is_null())) {
        error = "restic snapshots gave no JSON list";
        return false;
    }
    out.clear();
    if (doc.is_null()) return true;
    try {
        for (const auto& s : doc) {
            RepoSnapshot r;
            r.id = s.value("id", "");
            r.shortId = s.value("short_id", r.id.substr(0, 8));
            r.time = s.value("time", "");
            r.host = s.value("hostname", "");
            if (s.contains("paths") && s["paths"].is_array()) r.paths = s["paths"].get<std::vector<std::string>>();
            if (s.contains("tags") && s["tags"].is_array()) r.tags = s["tags"].get<std::vector<std::string>>();
            out.push_back(std::move(r));
        }
    } catch (const std::exception& e) {
        error = std::string("restic snapshots gave an unexpected entry: ") + e.what();
        return false;
    }
    return true;
}

bool ListSnapshots(const Restic& restic, const std::vector<std::string>& tags, std::vector<RepoSnapshot>& out,
                   std::string& error) {
    std::vector<std::string> args{"snapshots", "--json", "--no-lock"};
    std::string joined;
    for (const auto& t : tags) joined += (joined.empty() ? "" : ",") + t;
    if (!joined.empty()) args.insert(args.end(), {"--tag", joined});
    ResticResult r = restic.Run(args);
    if (!r.ok()) {
        error = Restic::Describe("snapshots", r);
        return false;
    }
    return ParseSnapshots(r.out, out, error);
}

bool OpenRepository(const Restic& restic, bool create, std::string& error) {
    ResticResult r = restic.Run({"cat", "config", "--no-lock"});
    if (r.ok()) return true;
    const bool missing = r.err.find("Is there a repository at the following location?") != std::string::npos ||
                         r.err.find("does not exist") != std::string::npos;
    if (!missing || !create) {
        error = missing ? "there is no repository at " + restic.Display() +
                              " (pass --init to create it, or run restic init --repository-version 2)"
                        : "cannot open the repository " + restic.Display() + ": " + Restic::Describe("cat config", r);
        return false;
    }
    r = restic.Run({"init", "--repository-version", "2"});
    if (!r.ok()) {
        error = "cannot create the repository " + restic.Display() + ": " + Restic::Describe("init", r);
        return false;
    }
    return true;
}

bool DumpText(const Restic& restic, const std::string& snapshot, const std::string& path, std::string& text,
              std::string& error) {
    ResticResult r = restic.Run({"dump", "--no-lock", snapshot, path});
    if (!r.ok()) {
        error = Restic::Describe("dump " + path, r);
        return false;
    }
    text = r.out;
    return true;
}

std::string NewBackupKey(const std::string& jobStamp) {
    return jobStamp + "-" + hxutil::RandomHex(4);
}

RepositoryWriter::RepositoryWriter(const Restic& restic, std::string instanceId, std::string host,
                                   std::string ownerTag, std::string key)
    : restic_(restic),
      instanceId_(std::move(instanceId)),
      host_(std::move(host)),
      ownerTag_(std::move(ownerTag)),
      key_(std::move(key)) {}

bool RepositoryWriter::Put(const std::string& file, const std::string& part,
                           const std::vector<std::string>& extraTags,
                           const std::function<bool(int, std::string&)>& feed, std::string& snapshot,
                           std::uint64_t& added, std::string& error) {
    std::vector<std::string> tags{"hxagent", "hxpart:" + part, "hxbackup:" + key_, "hxinstance:" + instanceId_,
                                  "hxowner:" + ownerTag_};
    tags.insert(tags.end(), extraTags.begin(), extraTags.end());
    std::vector<std::string> args{"backup", "--stdin", "--stdin-filename", instanceId_ + "/" + file, "--json",
                                  "--host", host_};
    for (const auto& a : TagArgs(tags)) args.push_back(a);
    // restic gives a --stdin file the snapshot's time as its modification time, and that
    // time is part of the file's metadata: with the real time every backup would store the
    // whole content list (about 130 KiB per GiB) again. Parts are only ever reached through
    // their manifest, whose snapshot carries the real time.
    if (part != "manifest") args.insert(args.end(), {"--time", kPartTime});
    auto child = restic_.Start(args, Restic::Pipe::Stdin, error);
    if (!child) return false;
    std::string feedError;
    const bool fed = feed(child->fd(), feedError);
    ResticResult r = fed ? child->Finish() : child->Kill();
    if (!fed) {
        // restic's own reason explains a broken pipe better than EPIPE does.
        error = feedError + (r.err.empty() || r.exitCode == -1 ? "" : " (" + Restic::Describe("backup", r) + ")");
        return false;
    }
    if (!r.ok() || !ParseBackupSummary(r.out, snapshot, added)) {
        error = Restic::Describe("backup of " + file, r);
        return false;
    }
    parts_.push_back(snapshot);
    added_ += added;
    return true;
}

MoveResult RepositoryWriter::PutDisk(const std::string& device, std::uint64_t size, const std::string& image,
                                     const MoveOptions& options, std::string& snapshot, std::uint64_t& added) {
    MoveResult moved;
    std::string error;
    const bool ok = Put(
        image, "disk", {},
        [&](int fd, std::string& why) {
            moved = DeviceToStream(device, size, fd, "restic backup", options);
            why = moved.error;
            return moved.ok;
        },
        snapshot, added, error);
    if (!ok) {
        moved.ok = false;
        moved.error = error;
    }
    return moved;
}

bool RepositoryWriter::PutConfig(const std::string& path, const std::string& name, std::string& snapshot,
                                 std::string& error) {
    std::uint64_t added = 0;
    return Put(
        name, "config", {},
        [&](int fd, std::string& why) {
            const std::int64_t size = DeviceOrFileSize(path, why);
            if (size < 0) return false;
            MoveResult r = DeviceToStream(path, static_cast<std::uint64_t>(size), fd, "restic backup", {});
            why = r.error;
            return r.ok;
        },
        snapshot, added, error);
}

bool RepositoryWriter::Commit(Manifest& m, std::string& snapshot, std::string& error) {
    m.backupKey = key_;
    std::uint64_t logical = 0;
    for (const auto& d : m.disks) logical += d.size;
    const std::string text = ManifestToJson(m);
    std::uint64_t added = 0;
    // The manifest's own few bytes are not counted: the tag must be known before it is stored.
    const std::vector<std::string> numbers{"hxdisks:" + std::to_string(m.disks.size()),
                                           "hxsize:" + std::to_string(logical), "hxadded:" + std::to_string(added_)};
    return Put(
        kManifestName, "manifest", numbers,
        [&](int fd, std::string& why) {
            size_t put = 0;
            while (put < text.size()) {
                ssize_t w = ::write(fd, text.data() + put, text.size() - put);
                if (w <= 0) {
                    why = "cannot stream the manifest to restic backup";
                    return false;
                }
                put += static_cast<size_t>(w);
            }
            return true;
        },
        snapshot, added, error);
}

void RepositoryWriter::Abandon() {
    if (parts_.empty()) return;
    std::vector<std::string> args{"forget"};
    args.insert(args.end(), parts_.begin(), parts_.end());
    if (restic_.Run(args).ok()) parts_.clear();
}

bool StoredBackup::Load(const Restic& restic, const std::string& id, StoredBackup& out, std::string& error) {
    std::vector<RepoSnapshot> all;
    if (!ListSnapshots(restic, {"hxagent", "hxpart:manifest"}, all, error)) return false;
    std::vector<RepoSnapshot> match;
    for (const auto& s : all)
        if (!id.empty() && s.id.compare(0, id.size(), id) == 0) match.push_back(s);
    if (match.size() != 1) {
        error = match.empty() ? "no backup " + id + " in " + restic.Display()
                              : "backup id " + id + " is ambiguous in " + restic.Display() + "; give more digits";
        return false;
    }
    out = StoredBackup{};
    out.restic_ = restic;
    out.snapshot_ = match.front();
    if (out.snapshot_.paths.size() != 1) {
        error = "snapshot " + out.snapshot_.shortId + " is not an hxagent manifest";
        return false;
    }
    std::string text;
    if (!DumpText(restic, out.snapshot_.id, out.snapshot_.paths.front(), text, error)) return false;
    if (!ManifestFromJson(text, out.manifest_, error)) {
        error = "manifest of backup " + out.snapshot_.shortId + ": " + error;
        return false;
    }
    const Manifest& m = out.manifest_;
    if (m.configSnapshot.empty()) {
        error = "manifest of backup " + out.snapshot_.shortId + " names no configuration document snapshot";
        return false;
    }
    for (const auto& d : m.disks)
        if (d.snapshot.empty()) {
            error = "manifest of backup " + out.snapshot_.shortId + " names no snapshot for disk " + d.id;
            return false;
        }
    if (!DumpText(restic, m.configSnapshot, "/" + m.instanceId + "/" + m.configFile, out.configText_, error)) {
        error = "configuration document of backup " + out.snapshot_.shortId + ": " + error;
        return false;
    }
    return true;
}

MoveResult StoredBackup::ReadDisk(const ManifestDisk& disk, const std::string& target,
                                  const MoveOptions& options) const {
    MoveResult r;
    std::string error;
    auto child = restic_.Start({"dump", "--no-lock", disk.snapshot, "/" + manifest_.instanceId + "/" + disk.image},
                                Restic::Pipe::Stdout, error);
    if (!child) {
        r.error = error;
        return r;
    }
    MoveOptions checked = options;
    checked.digest = DigestKindOf(disk);
    r = StreamToDevice(child->fd(), "restic dump of " + disk.id, disk.size, target, checked);
    // Closing our end stops a restic still writing; only a cancel kills it outright.
    ResticResult done = r.cancelled ? child->Kill() : child->Finish();
    if (r.ok && !done.ok()) {
        r.ok = false;
        r.error = Restic::Describe("dump of disk " + disk.id, done);
    } else if (!r.ok && !r.cancelled && !done.err.empty()) {
        r.error += " (" + Restic::Describe("dump", done) + ")";
    } else if (r.ok && r.digest != DigestOf(disk)) {
        r.ok = false;
        r.error = ChecksumMismatch("disk " + disk.id + " read back from the repository", disk, r.digest);
    }
    return r;
}

}  // namespace hxagent
