// Driving the `restic` command: hxagent's repository engine.
//
// hxagent never reimplements the repository format; it runs restic as a child process and
// reads its JSON output and exit status. restic's own conventions select the repository and
// its password: --repo / RESTIC_REPOSITORY, --password-file / RESTIC_PASSWORD_FILE /
// RESTIC_PASSWORD / RESTIC_PASSWORD_COMMAND, and each backend's credential variables
// (AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY, AWS_DEFAULT_REGION for s3: including Alibaba
// Cloud OSS, RESTIC_REST_USERNAME/PASSWORD for rest:, ...) are inherited by the child
// unchanged. hxagent never puts a secret on a command line, in a file or in a message: the
// text of every error passes through Scrub(), and repositories are shown with Redact().
//
// Contracts:
// - Every child gets a fresh process group-less fork with PR_SET_PDEATHSIG = SIGKILL, so a
//   killed hxagent takes its restic with it (its lock is then stale; `restic unlock`, run
//   by `hxagent cleanup`, removes it).
// - stderr of the child is kept (up to 64 KiB) for the error message; stdout is either
//   captured (Run) or handed to the caller as a pipe (Start).
// - The process must ignore SIGPIPE (hxagent does from the start): a restic that dies while
//   we feed it shows up as a failed write, not as our death.
// - Nothing throws; failures come back as text naming the restic command and its cause.
// Thread safety: a Restic object is immutable after Locate and may be shared; a
// ResticProcess belongs to one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace hxagent {

// Where the repository is and how its password is found. Empty members fall back to
// restic's environment variables.
struct RepositoryLocation {
    std::string repository;    // --repo: a path, rest:..., s3:..., sftp:...
    std::string passwordFile;  // --password-file
};

struct ResticResult {
    bool started = false;  // false: restic could not be run at all
    int exitCode = -1;     // -1 when killed by a signal
    std::string out;       // captured stdout (Run only)
    std::string err;       // stderr, scrubbed, trimmed
    bool ok() const { return started && exitCode == 0; }
};

// A running restic with one end of a pipe: its stdin (Start(.., Pipe::Stdin)) or its stdout.
class ResticProcess {
public:
    ~ResticProcess();  // kills and reaps a child still running
    ResticProcess(const ResticProcess&) = delete;
    ResticProcess& operator=(const ResticProcess&) = delete;
    int fd() const { return fd_; }
    // Closes our end of the pipe (EOF for restic's stdin) and waits for the child.
    // Stdout of a Stdin-mode child is captured in `out`.
    ResticResult Finish();
    // SIGKILL, then Finish: used when the caller gives up (cancel, read error).
    ResticResult Kill();

private:
    friend class Restic;
    ResticProcess() = default;
    int pid_ = -1, fd_ = -1, outFd_ = -1, errFd_ = -1;
    std::string repository_;  // for scrubbing stderr
};

class Restic {
public:
    enum class Pipe { Stdin, Stdout };

    // Finds `restic` on PATH, checks its version (0.14 or newer) and that a repository and a
    // password source are configured. False with `error` saying what is missing and how to
    // provide it.
    static bool Locate(const RepositoryLocation& where, Restic& out, std::string& error);

    // Runs `restic <global options> args...` with stdin from /dev/null and stdout captured.
    ResticResult Run(const std::vector<std::string>& args) const;
    // Starts restic with a pipe to its stdin or from its stdout; null with `error`.
    std::unique_ptr<ResticProcess> Start(const std::vector<std::string>& args, Pipe pipe, std::string& error) const;

    const std::string& version() const { return version_; }
    // The repository as it may be shown: user info of a URL replaced by "***".
    std::string Display() const;
    // The repository string (for restic itself and for records when it carries no secret).
    const std::string& repository() const { return repository_; }
    const std::string& passwordFile() const { return passwordFile_; }
    // One line describing a failed run: "restic <verb> failed (exit N): <stderr>".
    static std::string Describe(const std::string& verb, const ResticResult& r);

private:
    std::vector<std::string> Argv(const std::vector<std::string>& args) const;
    std::string binary_, version_, repository_, passwordFile_;
};

// Parses "restic 0.14.0 compiled with ..." into {0, 14, 0}; false when it is not that.
bool ParseResticVersion(const std::string& text, int& major, int& minor, int& patch);
// `repository` with the password of an URL's user info hidden.
std::string RedactRepository(const std::string& repository);
// `text` with every known secret (restic's and the backends' secret variables, the user
// info of the repository URL) replaced by "***".
std::string Scrub(const std::string& text, const std::string& repository);

}  // namespace hxagent
