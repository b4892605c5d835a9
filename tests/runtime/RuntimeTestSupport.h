// Shared helpers of the runtime tests: a scratch folder and a clean slate of host settings.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "hxruntime/HostApi.h"

// A fresh folder under $TMPDIR, removed with everything in it at the end of the test.
class ScratchDir {
public:
    ScratchDir() {
        std::string tmpl = (std::filesystem::temp_directory_path() / "hxrt-XXXXXX").string();
        if (::mkdtemp(tmpl.data())) path_ = tmpl;
    }
    ~ScratchDir() {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

private:
    std::string path_;
};

// Every test starts from the runtime's defaults, pointed at its own scratch folder.
class RuntimeTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(dir.path().empty());
        hxruntime::CloseLog();
        hxruntime::SetLogDirectory("");
        hxruntime::SetLogVerbosity(2);
        hxruntime::SetLogEcho(false);
        hxruntime::SetLogRotation(16ull << 20, 4);
        hxruntime::ClearJobId();
        hxruntime::ClearCancel();
        hxruntime::SetTimeScale(1.0);
        hxruntime::SetStateDirectory(dir / "state");
        hxruntime::SetCleanerDatabasePath("");
        hxruntime::SetDeviceRoots(dir / "dev", dir / "sys");
        hxruntime::SetAttachWaitMs(5000);
        hxruntime::SetDetachWaitMs(2000);
        hxruntime::SetApplicationName("hxtest");
    }
    void TearDown() override {
        hxruntime::ClearCancel();
        hxruntime::CloseLog();
    }

    ScratchDir dir;
};

inline std::string ReadText(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
