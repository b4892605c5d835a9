// Finding, reading and parsing the backed-up configuration file in the restore folder,
// against real folders on disk.
#include <gtest/gtest.h>
#include <unistd.h>

#include "FxUtil.h"
#include "ExpectedTags.h"
#include "RestoreWorld.h"

using namespace expected_tags;
using restoreworld::TempDir;

namespace {

class RestoreConfigTest : public RestoreFixture {};

TEST_F(RestoreConfigTest, TakesTheOnlyJsonFileWhateverTheCaseOfItsExtension) {
    struct Case {
        std::vector<std::string> others;  // files and folders that must not be taken
        std::string config;
    };
    const Case cases[] = {
        {{}, "i-web_InstanceConfig.json"},
        {{"notes.txt", "config.xml"}, "i-web_InstanceConfig.JSON"},
        {{"json", "backup.json.bak", ".json"}, "a.Json"},
    };
    for (const Case& c : cases) {
        TempDir dir;
        for (const auto& other : c.others) dir.File(other);
        dir.Dir("folder.json");  // folders are not listed
        const std::string expected = dir.File(c.config);
        RestoreCtx ctx = restoreworld::Request(dir.path());
        EXPECT_TRUE(plugin.FindVMConfigFile(ctx)) << c.config;
        EXPECT_EQ(expected, ctx.configFilePath);
        EXPECT_TRUE(fakefw::HasLine(kFindVMConfigFile, "Found VM Config File [" + expected + "]"));
    }
}

TEST_F(RestoreConfigTest, OfTwoJsonFilesTheFirstInDirectoryOrderWins) {
    TempDir dir;
    for (const char* name : {"b.json", "a.json", "c.json", "zz.json"}) dir.File(name);
    // The order the directory reader returns, which need not be alphabetical.
    CZuDirectory reader;
    ASSERT_FALSE(reader.Open(dir.path(), "*", true).IsError());
    SZuDirEntry first;
    bool end = false;
    ASSERT_FALSE(reader.GetEntry(&first, end).IsError());
    reader.Close();

    RestoreCtx ctx = restoreworld::Request(dir.path());
    ASSERT_TRUE(plugin.FindVMConfigFile(ctx));
    EXPECT_EQ(dir.path() + "/" + first.name, ctx.configFilePath);
    EXPECT_EQ(1u, fakefw::LinesWithText("Found VM Config File [" + ctx.configFilePath + "]").size());
}

TEST_F(RestoreConfigTest, AFolderWithoutJsonFailsWithTheXmlMessageAndCode118) {
    TempDir dir;
    dir.File("InstanceConfig.xml");
    dir.File("readme");
    RestoreCtx ctx = restoreworld::Request(dir.path());
    plugin.SetConfigContent("untouched");
    EXPECT_FALSE(plugin.ReadConfigFile(ctx));
    EXPECT_EQ(VMINFO_ERR_CONFIG_NOT_FOUND, plugin.GetLastVMError());
    EXPECT_EQ("", plugin.GetLastVMErrorDetails());
    EXPECT_EQ("", ctx.configFilePath);
    EXPECT_EQ("untouched", plugin.ConfigContent());
    auto lines = fakefw::LinesWithText("Could not find a .xml config file at [" + dir.path() + "]");
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(lines[0].isError());
    EXPECT_EQ(kFindVMConfigFile, lines[0].tag);
}

TEST_F(RestoreConfigTest, AMissingFolderIsReportedWithTheReadersError) {
    TempDir dir;
    const std::string missing = dir.path() + "/not-there";
    RestoreCtx ctx = restoreworld::Request(missing);
    EXPECT_FALSE(plugin.ReadConfigFile(ctx));
    EXPECT_EQ(VMINFO_ERR_CONFIG_NOT_FOUND, plugin.GetLastVMError());
    CZuDirectory reader;
    const std::string readerError = reader.Open(missing, "*", true).AsString();
    auto errors = fakefw::ErrorTexts();
    ASSERT_EQ(1u, errors.size());
    EXPECT_EQ("Error Accessing Restore Path[" + missing + "], Error = [" + readerError + "]", errors[0]);
}

TEST_F(RestoreConfigTest, APathFoundEarlierInTheJobIsUsedWhenTheFolderHasNone) {
    TempDir earlier;
    const std::string file = earlier.File("i-web_InstanceConfig.json", "earlier text");
    TempDir empty;
    RestoreCtx ctx = restoreworld::Request(empty.path());
    ctx.configFilePath = file;
    EXPECT_TRUE(plugin.ReadConfigFile(ctx));
    EXPECT_EQ(file, ctx.configFilePath);
    EXPECT_EQ("earlier text", plugin.ConfigContent());
}

TEST_F(RestoreConfigTest, AnUnreadableFileFailsWithCode42AndTheTextAsDetails) {
    TempDir dir;
    // A dangling link is listed like a file but cannot be read, whoever runs the test.
    const std::string link = dir.path() + "/i-web_InstanceConfig.json";
    ASSERT_EQ(0, ::symlink((dir.path() + "/gone").c_str(), link.c_str()));
    RestoreCtx ctx = restoreworld::Request(dir.path());
    EXPECT_FALSE(plugin.ReadConfigFile(ctx));
    const std::string text = "Failed to read from the config file [" + link + "].";
    EXPECT_EQ(VMINFO_ERR_CONFIG_READ, plugin.GetLastVMError());
    EXPECT_EQ(text, plugin.GetLastVMErrorDetails());
    auto lines = fakefw::LinesWithText(text);
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(lines[0].isError());
    EXPECT_EQ(kReadConfigFile, lines[0].tag);
}

TEST_F(RestoreConfigTest, TheBridgeTurnsTheFileIntoPropertiesAndTheTextStaysInThePlugin) {
    TempDir dir;
    const std::string file = dir.File("i-web_InstanceConfig.json", restoreworld::kConfigText);
    RestoreCtx ctx = restoreworld::Request(dir.path());
    ASSERT_TRUE(plugin.PrepareRestoreCtxVMInfoFromConfigFile(ctx));
    EXPECT_EQ(restoreworld::kConfigText, plugin.ConfigContent());
    EXPECT_EQ("CentOS 7.9 64 bit;x86_64", ctx.vmInfo.guestOS);
    EXPECT_EQ("ecs.g6.large", ctx.vmInfo.vmProfile);
    auto calls = cloud().CallsTo("GetVMInfoFromConfigFile");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(restoreworld::kConfigText, calls[0].Arg(0));
    EXPECT_TRUE(fakefw::HasLine(kPrepareRestoreCtxVMInfoFromConfigFile, "Restored config file is [" + file + "]."));
}

TEST_F(RestoreConfigTest, AFileTheBridgeCannotParseFailsWithCode42AndLeavesThePropertiesAlone) {
    TempDir dir;
    dir.File("i-web_InstanceConfig.json", "not a document");
    RestoreCtx ctx = restoreworld::Request(dir.path());
    ctx.vmInfo.vmProfile = "before";
    cloud().FailNext("GetVMInfoFromConfigFile", "InvalidConfigDocument: bad");
    EXPECT_FALSE(plugin.PrepareRestoreCtxVMInfoFromConfigFile(ctx));
    EXPECT_EQ(VMINFO_ERR_CONFIG_READ, plugin.GetLastVMError());
    EXPECT_EQ("InvalidConfigDocument: bad", plugin.GetLastVMErrorDetails());
    EXPECT_EQ("before", ctx.vmInfo.vmProfile);
    EXPECT_EQ(std::vector<std::string>{"Failed to load properties from config file. Error : [InvalidConfigDocument: bad]"},
              fakefw::ErrorTexts());
}

TEST_F(RestoreConfigTest, PrefilledPropertiesSkipTheFileAltogether) {
    RestoreCtx ctx = restoreworld::Request("/no/such/folder");
    ctx.vmInfoPrefilled = true;
    ctx.vmInfo.vmProfile = "prefilled";
    EXPECT_TRUE(plugin.PrepareRestoreCtxVMInfoFromConfigFile(ctx));
    EXPECT_EQ("prefilled", ctx.vmInfo.vmProfile);
    EXPECT_EQ("", plugin.ConfigContent());
    EXPECT_EQ("", ctx.configFilePath);
    EXPECT_EQ(0, cloud().Count("GetVMInfoFromConfigFile"));
    EXPECT_TRUE(fakefw::Logs().empty()) << fakefw::Dump();
}

}  // namespace
