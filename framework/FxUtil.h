// Small framework utilities: strings, paths, files, directories, errors, locks, time, GUIDs.
// None of them throws; failures are results.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "LogArg.h"

// ---- Strings ----
class FXString {
public:
    // printf-style formatting with the safe rules of LogArg.h.
    template <class... A>
    static std::string Format(const char* fmt, const A&... args) {
        return FormatWithArgs(fmt, {LogArg(args)...});
    }
    // Splits `text` at every occurrence of `separator` into `parts` (cleared first) and
    // returns the number of parts. With flags 0 empty parts are kept ("a||b" gives 3 parts,
    // "|" gives 2 empty parts); with FXSPLIT_SKIP_EMPTY they are dropped. An empty text gives
    // no parts; an empty separator gives the whole text as one part.
    static constexpr int FXSPLIT_SKIP_EMPTY = 1;
    static int Split(const std::string& text, const std::string& separator, std::vector<std::string>& parts, int flags);
    // Case-insensitive (ASCII) comparison: negative, zero or positive.
    static int CompareNoCase(const std::string& a, const std::string& b);
};

// The framework's string type, with "{1}", "{2}"... placeholder formatting.
class CZuString {
public:
    CZuString() = default;
    CZuString(const char* s) : text_(s ? s : "") {}
    CZuString(std::string s) : text_(std::move(s)) {}
    const std::string& str() const { return text_; }
    operator const std::string&() const { return text_; }
    const char* c_str() const { return text_.c_str(); }
    bool empty() const { return text_.empty(); }
    bool operator==(const CZuString& o) const { return text_ == o.text_; }

    // Replaces each "{n}" (1-based) with the n-th argument; unknown placeholders stay.
    template <class... A>
    static CZuString Format(const CZuString& tmpl, const A&... args) {
        return CZuString(FormatPositional(tmpl.text_, {LogArg(args)...}));
    }
    static std::string FormatPositional(const std::string& tmpl, std::initializer_list<LogArg> args);

private:
    std::string text_;
};

// ---- Errors ----
// A result of a file or directory operation: 0 is success, otherwise an errno value with
// the operation's text.
class CZuError {
public:
    CZuError() = default;
    CZuError(int code, std::string text) : code_(code), text_(std::move(text)) {}
    static CZuError FromErrno(int err, const std::string& what);
    bool IsError() const { return code_ != 0; }
    int Code() const { return code_; }
    // "<what>: <strerror>" for an error, "Success" otherwise.
    std::string AsString() const { return code_ ? text_ : std::string("Success"); }

private:
    int code_ = 0;
    std::string text_;
};

// ---- Paths and files ----
class FXPath {
public:
    static bool DoesPathExist(const std::string& path);
};

class CZuPath {
public:
    // Joins with one '/' unless `dir` already ends with a '/' (or is empty).
    static std::string Append(const std::string& dir, const std::string& name);
    // Extension of the last path element, without the dot; empty when there is none.
    // A leading dot ("~/.profile") does not start an extension.
    static std::string GetExt(const std::string& path);
};

class CZuFile {
public:
    static CZuError Delete(const std::string& path);
};

struct SZuDirEntry {
    std::string name;           // entry name, without the directory
    bool isDirectory = false;
    std::int64_t size = 0;      // bytes, for regular files
};

// Lists a directory's entries in the order the file system returns them, without "." and "..".
class CZuDirectory {
public:
    CZuDirectory();
    ~CZuDirectory();
    CZuDirectory(const CZuDirectory&) = delete;
    CZuDirectory& operator=(const CZuDirectory&) = delete;
    // `pattern` is a glob over entry names ("*" = all); `filesOnly` skips directories.
    CZuError Open(const std::string& path, const std::string& pattern, bool filesOnly);
    // Fills the next entry; at the end sets `end` and leaves `entry` cleared (not an error).
    CZuError GetEntry(SZuDirEntry* entry, bool& end);
    CZuError Close();

private:
    struct State;
    std::unique_ptr<State> state_;
};

// Reads the whole file into `text`. False when it cannot be opened or read.
bool ReadWholeFile(const std::string& path, std::string& text);
// Replaces the file with `text` atomically (temporary file in the same folder, fsync, rename).
bool WriteWholeFile(const std::string& path, const std::string& text);
// Size in bytes of a regular file (or of a block device).
bool FileSize(const std::string& path, long long& size);

// ---- Locks ----
// A non-recursive mutual exclusion lock.
class HxCriticalSection {
public:
    HxCriticalSection();
    ~HxCriticalSection();
    HxCriticalSection(const HxCriticalSection&) = delete;
    HxCriticalSection& operator=(const HxCriticalSection&) = delete;
    void enter();
    void leave();

private:
    struct State;
    std::unique_ptr<State> state_;
};
using HxCriticalSectionH = HxCriticalSection;

// Enters on construction, leaves on destruction.
class HxCriticalSectionLock {
public:
    explicit HxCriticalSectionLock(HxCriticalSection& cs) : cs_(cs) { cs_.enter(); }
    ~HxCriticalSectionLock() { cs_.leave(); }
    HxCriticalSectionLock(const HxCriticalSectionLock&) = delete;
    HxCriticalSectionLock& operator=(const HxCriticalSectionLock&) = delete;

private:
    HxCriticalSection& cs_;
};

// ---- Time ----
class FXThread {
public:
    // Blocks the calling thread for about `milliseconds` (scaled by the deployment's time scale).
    static void Sleep(unsigned int milliseconds);
};
// A sleep that names its source position (for traces of long waits).
void ZUSLEEP_InTeRnAl(unsigned int milliseconds, const char* file, int line);
#define ZUSLEEP(ms) ZUSLEEP_InTeRnAl((ms), __FILE__, __LINE__)

// ---- Identity ----
// A new random GUID (RFC 4122 version 4), lower-case, 36 characters.
std::string CreateGuid();

// The framework's focus (the component the process serves), for logs.
class HXPI_Focus {
public:
    static std::string getFocus();
};
