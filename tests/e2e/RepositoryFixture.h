// End-to-end fixture for repository backups: the real restic, a repository in the test's
// folder (or served by a real `rclone serve restic` on 127.0.0.1), the password in a file
// named by RESTIC_PASSWORD_FILE as an operator would set it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <random>

#include "AgentFixture.h"
#include "storage/RepositoryStore.h"

namespace hxe2e {

// `rclone serve restic` on a free loopback port, with basic authentication; stopped by the
// destructor.
class RcloneServer {
public:
    RcloneServer(const std::string& dir, const std::string& user, const std::string& password) {
        port_ = FreePort();
        fs::create_directories(dir);
        pid_ = ::fork();
        if (pid_ == 0) {
            const std::string addr = "127.0.0.1:" + std::to_string(port_);
            int devnull = ::open("/dev/null", O_WRONLY);
            ::dup2(devnull, 1);
            ::dup2(devnull, 2);
            ::execlp("rclone", "rclone", "serve", "restic", "--addr", addr.c_str(), "--user", user.c_str(), "--pass",
                     password.c_str(), dir.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        for (int i = 0; i < 500 && !Accepts(); ++i) std::this_thread::sleep_for(20ms);
    }
    ~RcloneServer() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    bool ready() { return Accepts(); }
    int port() const { return port_; }

private:
    static int FreePort() {
        int s = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
        socklen_t len = sizeof a;
        ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
        ::close(s);
        return ntohs(a.sin_port);
    }
    bool Accepts() const {
        int s = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port_));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const bool ok = ::connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        ::close(s);
        return ok;
    }
    pid_t pid_ = -1;
    int port_ = 0;
};

class RepositoryE2E : public AgentE2E {
protected:
    void SetUp() override {
        AgentE2E::SetUp();
        repo_ = dir_ + "/repo";
        password_ = "pw-" + std::to_string(std::random_device{}()) + "-never-shown";
        {
            std::ofstream pw(dir_ + "/password");
            pw << password_ << "\n";
        }
        // The test process reads the repository too (through hxagent's own restic driver).
        ::setenv("RESTIC_PASSWORD_FILE", (dir_ + "/password").c_str(), 1);
        ::setenv("RESTIC_CACHE_DIR", (dir_ + "/cache").c_str(), 1);
        // Only this test's restic settings: none inherited (an earlier test's among them).
        std::erase_if(env_, [](const std::string& v) { return v.rfind("RESTIC_", 0) == 0; });
        env_.push_back("RESTIC_PASSWORD_FILE=" + dir_ + "/password");
        env_.push_back("RESTIC_CACHE_DIR=" + dir_ + "/cache");
    }

    // Backs up `instance` into `repo`; the backup id, or "" (with a test failure).
    std::string BackupTo(const std::string& repo, const std::string& instance, RunResult* result = nullptr) {
        RunResult r = Run({"backup", instance, "--repo", repo, "--init"});
        EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
        if (result) *result = r;
        return r.doc.is_object() ? r.doc.value("backupId", "") : "";
    }

    // The backup ids `backups` lists for `repo`.
    std::vector<std::string> Listed(const std::string& repo) {
        RunResult r = Run({"backups", "--repo", repo});
        EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
        std::vector<std::string> ids;
        if (r.doc.is_object())
            for (const auto& b : r.doc["backups"]) ids.push_back(b.value("id", ""));
        return ids;
    }

    // Every snapshot hxagent wrote into `repo`.
    std::vector<hxagent::RepoSnapshot> Snapshots(const std::string& repo) {
        hxagent::Restic restic;
        std::string error;
        std::vector<hxagent::RepoSnapshot> out;
        EXPECT_TRUE(hxagent::Restic::Locate({repo, ""}, restic, error)) << error;
        EXPECT_TRUE(hxagent::ListSnapshots(restic, {"hxagent"}, out, error)) << error;
        return out;
    }

    // Restores backup `id` as `name` and checks that every disk of the new instance is
    // byte-identical to its source.
    void RestoreAndCompare(const std::string& repo, const std::string& id, const std::string& name) {
        RunResult r = Run({"restore", id, "--repo", repo, "--name", name});
        ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
        const std::string newId = r.doc.value("instanceId", "");
        RunResult d = Run({"describe", id, "--repo", repo});
        ASSERT_EQ(d.exitCode, 0) << d.out << d.err;
        hxagent::Manifest m;
        std::string error;
        ASSERT_TRUE(hxagent::ManifestFromJson(d.doc["manifest"].dump(), m, error)) << error;
        json after = State();
        ASSERT_EQ(r.doc["disks"].size(), m.disks.size());
        for (size_t i = 0; i < m.disks.size(); ++i) {
            const auto& disk = m.disks[i];
            const std::string newDisk = r.doc["disks"][i].value("newId", "");
            const json* target = Find(after, "disks", [&](const json& x) {
                return x["InstanceId"] == newId && (disk.isOSDisk ? x["Type"] == "system" : x["DiskId"] == newDisk);
            });
            const json* src = Find(after, "disks", [&](const json& x) { return x["DiskId"] == disk.id; });
            ASSERT_TRUE(target && src) << disk.id;
            std::string why;
            EXPECT_TRUE(hxagent::SameContent((*src)["File"], (*target)["File"], disk.size, why)) << disk.id << why;
        }
    }

    // Whether `secret` appears in any file under `root` or in `text`.
    static bool Leaks(const std::string& secret, const std::string& root, const std::string& text) {
        if (text.find(secret) != std::string::npos) return true;
        std::error_code ec;
        for (auto& e : fs::recursive_directory_iterator(root, ec))
            if (e.is_regular_file() && e.path().filename() != "password" && e.file_size() < (64 << 20) &&
                Slurp(e.path()).find(secret) != std::string::npos)
                return true;
        return false;
    }

    std::string repo_, password_;
};

}  // namespace hxe2e
