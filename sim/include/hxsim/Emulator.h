// hxsim: an in-process Alibaba Cloud ECS emulator (API version 2014-05-26).
//
// One loopback HTTP server answers
//   /              the ECS RPC API (GET/POST, V2 HMAC-SHA1 and V3 ACS3-HMAC-SHA256
//                  signatures checked against the scenario's AccessKeys),
//   /latest/...    the instance metadata service, answering for the proxy instance,
//   /_sim/...      the emulator's control endpoint (state, call counts, faults, reset).
// Every disk is a sparse file under the state folder; a disk attached to the proxy
// instance appears as <DeviceRoot()>/dev/disk/by-id/virtio-<serial>, a symlink to that
// file, exactly where a guest's udev would put it.
//
// Errors are returned as values; no function of this API throws.
// Thread-safety: Start/Stop/Reset must not race each other; the getters may be called
// from any thread once Start has returned.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace hxsim {

struct Options {
  uint16_t port = 0;                      // 0: an ephemeral port
  std::string bindAddress = "127.0.0.1";  // loopback by design
  // Where disk, snapshot and image files live. Empty: a private temporary folder that
  // Stop removes. A given folder is kept, but its disks/, snapshots/, images/ and
  // root/dev/disk/by-id/ subfolders are rebuilt on Start.
  std::filesystem::path stateDir;
  // The device root; empty: <stateDir>/root. Links appear in <deviceRoot>/dev/disk/by-id.
  std::filesystem::path deviceRoot;
  // The world to start from: scenarioFile if set, else scenarioJson if set, else the
  // built-in default (see DefaultScenarioJson()).
  std::filesystem::path scenarioFile;
  std::string scenarioJson;
  // Factor applied to every transition duration: 0.01 makes a 20 s snapshot take 0.2 s.
  double timeScale = 1.0;
  // The RAM role attached to the proxy instance, served by the metadata service at
  // /latest/meta-data/ram/security-credentials/<name>; empty: no role (404 there).
  std::string ramRoleName = "hxagent-proxy";
  // Life of the credentials that role hands out, in seconds at scale 1 (stretched by
  // timeScale like every duration). Real ECS gives about an hour and more.
  double roleCredentialSeconds = 3600;
  // Seeds generated ids and fault-injection randomness, so runs are repeatable.
  uint64_t seed = 1;
  // Called once per API request with "<Action> <HTTP status> <Code or OK> <ms>"; may be
  // empty. Runs on server threads, concurrently: it must be thread-safe.
  std::function<void(const std::string& line)> requestLog;
};

struct Credentials {
  std::string accessKeyId;
  std::string accessKeySecret;
  std::string securityToken;  // empty for permanent keys
};

struct StartResult {
  std::string error;     // empty on success
  uint16_t port = 0;
  std::string endpoint;  // "http://127.0.0.1:<port>"
  bool ok() const { return error.empty(); }
};

class Emulator {
 public:
  explicit Emulator(Options options = {});
  ~Emulator();  // stops if running
  Emulator(const Emulator&) = delete;
  Emulator& operator=(const Emulator&) = delete;

  // Loads the scenario, builds the state folder and listens. Fails (without throwing)
  // on a bad scenario, an unusable folder or a port in use.
  StartResult Start() noexcept;
  // Stops serving and joins all threads; removes a temporary state folder. Idempotent.
  void Stop() noexcept;
  // Back to the scenario's initial state (resources, files, links, faults, counters).
  // Returns an error text, empty on success.
  std::string Reset() noexcept;

  // The getters below return empty values before a successful Start.
  bool Running() const noexcept;
  uint16_t Port() const noexcept;
  std::string Endpoint() const noexcept;          // ECS API base URL, e.g. http://127.0.0.1:41234
  std::string HostPort() const noexcept;          // "127.0.0.1:41234" (for SDKs that take host[:port])
  std::string MetadataEndpoint() const noexcept;  // base URL for /latest/... (same server)
  std::filesystem::path DeviceRoot() const noexcept;  // <root>; a disk mapper uses <root>/dev as /dev
  std::filesystem::path ByIdDir() const noexcept;     // <root>/dev/disk/by-id
  std::filesystem::path StateDir() const noexcept;
  std::string ProxyInstanceId() const noexcept;
  std::string ProxyRegionId() const noexcept;
  std::string ProxyZoneId() const noexcept;
  Credentials DemoCredentials() const noexcept;  // the scenario's first AccessKey
  // Temporary credentials handed out so far (RAM role through the metadata service, STS
  // AssumeRole and AssumeRoleWithOIDC); also "credentialsIssued" in /_sim/info.
  int CredentialsIssued() const noexcept;

  // The built-in default scenario's fixed demo AccessKey pair.
  static Credentials BuiltInDemoCredentials() noexcept;
  // The built-in default scenario as JSON (also a reference for the file format).
  static std::string DefaultScenarioJson() noexcept;
  // Checks a scenario without starting anything. Returns an error text, empty if valid.
  static std::string ValidateScenario(const std::string& json) noexcept;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace hxsim
