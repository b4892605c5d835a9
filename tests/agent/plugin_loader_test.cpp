#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "PluginLoader.h"

namespace hxagent {
namespace {

TEST(PluginLoader, CreatesDrivesAndDestroysTheObject) {
    const std::string mark =
        (std::filesystem::temp_directory_path() / ("hxagent-plugin-mark-" + std::to_string(::getpid()))).string();
    std::filesystem::remove(mark);
    ::setenv("HX_TEST_PLUGIN_MARK", mark.c_str(), 1);
    std::string error;
    auto plugin = LoadedPlugin::Load(HX_TEST_PLUGIN, VSI_TYPE_ALIBABA_CLOUD_ECS, error);
    ASSERT_TRUE(plugin) << error;
    EXPECT_EQ(plugin->vm().GetInstanceType(), VSI_TYPE_ALIBABA_CLOUD_ECS);
    // Calls reach the plug-in's overrides through the CVMInfo it handed out.
    EXPECT_EQ(plugin->vm().Connect("", "good", "secret"), 1);
    EXPECT_EQ(plugin->vm().Connect("", "bad", "secret"), 0);
    EXPECT_FALSE(std::filesystem::exists(mark));
    plugin.reset();
    EXPECT_TRUE(std::filesystem::exists(mark));
    std::filesystem::remove(mark);
    ::unsetenv("HX_TEST_PLUGIN_MARK");
}

TEST(PluginLoader, ReportsWhyLoadingFailed) {
    struct Case {
        const char* what;
        std::string path;
        bool refuse;
        const char* expect;
    } cases[] = {
        {"missing file", "/nonexistent/libAliCloudInfo.so", false, "cannot load plug-in"},
        {"no factory", "libc.so.6", false, "does not export CreateAliCloudInfoObject"},
        {"factory refuses", HX_TEST_PLUGIN, true, "refused"},
    };
    for (const auto& c : cases) {
        if (c.refuse) ::setenv("HX_TEST_PLUGIN_REFUSE", "1", 1);
        std::string error;
        auto plugin = LoadedPlugin::Load(c.path, VSI_TYPE_ALIBABA_CLOUD_ECS, error);
        ::unsetenv("HX_TEST_PLUGIN_REFUSE");
        EXPECT_FALSE(plugin) << c.what;
        EXPECT_NE(error.find(c.expect), std::string::npos) << c.what << ": " << error;
    }
}

TEST(PluginLoader, FindsThePluginBesideTheExecutableElseInTheInstalledLibraryFolder) {
    namespace fs = std::filesystem;
    const fs::path root = fs::temp_directory_path() / ("hxagent-plugin-path-" + std::to_string(::getpid()));
    const std::string beside = (root / "bin/libAliCloudInfo.so").string();
    const std::string installed = (root / "lib/hxagent/libAliCloudInfo.so").string();
    struct Case {
        const char* what;
        bool hasBeside, hasInstalled;
        std::string expect;
    } cases[] = {
        {"build tree", true, false, beside},
        {"both: the build tree's wins", true, true, beside},
        {"installed tree", false, true, installed},
        {"neither: the load error names the build-tree path", false, false, beside},
    };
    for (const auto& c : cases) {
        fs::remove_all(root);
        fs::create_directories(root / "bin");
        fs::create_directories(root / "lib/hxagent");
        if (c.hasBeside) std::ofstream(beside) << "";
        if (c.hasInstalled) std::ofstream(installed) << "";
        EXPECT_EQ(PluginPathFor((root / "bin").string()), c.expect) << c.what;
    }
    fs::remove_all(root);
}

TEST(PluginLoader, DefaultPathIsNextToTheExecutable) {
    const std::string path = DefaultPluginPath();
    const std::string exeDir = std::filesystem::canonical("/proc/self/exe").parent_path().string();
    EXPECT_EQ(path, exeDir + "/libAliCloudInfo.so");
}

}  // namespace
}  // namespace hxagent
