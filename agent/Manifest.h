// The backup's table of contents, manifest.json, in <dest>/<instance id>/<job stamp>/.
//
// Written last and atomically (temporary file, fsync, rename, fsync of the folder): a
// folder without manifest.json is an incomplete backup and restore refuses it. Every path
// in the manifest is a bare file name inside the backup folder.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "io/ImageDigest.h"

namespace hxagent {

inline constexpr const char* kManifestName = "manifest.json";
inline constexpr const char* kManifestFormat = "hxagent-ecs-backup";
// Version 2 records each image's block digest (io/ImageDigest.h says why); version 1, still
// read, verified and restored, recorded the SHA-256 of the whole image.
inline constexpr int kManifestVersion = 2;
inline constexpr int kOldestManifestVersion = 1;

struct ManifestDisk {
    std::string id;            // source disk id ("d-...")
    std::string name;          // display name, may be empty
    bool isOSDisk = false;
    std::uint64_t size = 0;    // bytes in the image
    std::int64_t diskSize = 0; // GiB, as ECS sizes the disk
    std::string category;      // "cloud_essd", ...
    std::string performanceLevel;
    bool encrypted = false;
    std::string zone;
    std::string image;         // file name of the sparse image
    std::string blockSha256;   // version 2: the image's block digest
    std::string sha256;        // version 1: SHA-256 of the image's full content (= sha256sum)
    std::uint64_t dataBytes = 0;  // non-zero bytes stored
    double seconds = 0;        // time spent reading the disk
    std::string snapshot;      // repository backups: the restic snapshot holding the image
};

struct Manifest {
    int version = kManifestVersion;
    std::string instanceId;
    std::string instanceName;
    std::string regionId;
    std::string zoneId;
    std::string instanceType;
    std::string guestOS;
    std::string jobStamp;
    long long jobId = 0;
    std::string configFile;  // file name of the instance configuration document
    std::vector<ManifestDisk> disks;
    std::string startedAt, finishedAt;  // UTC, ISO 8601
    double mountSeconds = 0, copySeconds = 0, unmountSeconds = 0, totalSeconds = 0;
    // Where the backup came from.
    std::string proxyId;        // the proxy instance that read the disks
    std::string cloud;          // the cloud target, one line without secrets
    std::string agentVersion;   // hxagent's version
    // Repository backups only: the backup's key and the snapshot of the configuration document.
    std::string backupKey;
    std::string configSnapshot;
};

// What an image is checked against: the block digest, or in a version 1 manifest the SHA-256.
io::DigestKind DigestKindOf(const ManifestDisk& d);
const std::string& DigestOf(const ManifestDisk& d);
// "<what> does not match its checksum (<kind> <got>, manifest <want>): the backup is damaged"
std::string ChecksumMismatch(const std::string& what, const ManifestDisk& d, const std::string& got);

std::string ManifestToJson(const Manifest& m);
// False with `error` for a document that is not a manifest of a known version or lacks a
// field restore needs, or names a file outside its folder.
bool ManifestFromJson(const std::string& text, Manifest& m, std::string& error);

// Writes <folder>/manifest.json atomically.
bool WriteManifest(const std::string& folder, const Manifest& m, std::string& error);
bool ReadManifest(const std::string& folder, Manifest& m, std::string& error);

// "20240519T101502Z": the UTC time of the job's start, sortable, safe in a path.
std::string JobStamp(std::int64_t unixSeconds);
std::string IsoTime(std::int64_t unixSeconds);

}  // namespace hxagent
