// The framework code that plug-in and runtime share: what a plug-in's log lines, error
// texts, path handling and filters rest on.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>

#include "FxUtil.h"
#include "VMInfo.h"

namespace {

TEST(Formatting, PrintfConversionsWithTypedArguments) {
    const std::string s = "text";
    EXPECT_EQ("a [text] b", FXString::Format("a [%s] b", s));
    EXPECT_EQ("[-123456] [42] [7]", FXString::Format("[%lld] [%d] [%u]", -123456LL, 42, 7u));
    EXPECT_EQ("[ff] [FF] [  5] [5  ] [007]", FXString::Format("[%x] [%X] [%3d] [%-3d] [%03d]", 255, 255, 5, 5, 7));
    EXPECT_EQ("[1.50] [c] [100%]", FXString::Format("[%.2f] [%c] [100%%]", 1.5, 'c'));
    EXPECT_EQ("[tex]", FXString::Format("[%.3s]", s));
    EXPECT_EQ("[(null)]", FXString::Format("[%s]", static_cast<const char*>(nullptr)));
}

TEST(Formatting, WrongArgumentsNeverCrashAndStayReadable) {
    // Too few arguments: the missing ones are named, nothing is read from the stack.
    EXPECT_EQ("[x] [(missing)] [(missing)]", FXString::Format("[%s] [%d] [%s]", "x"));
    // Too many: the surplus is ignored.
    EXPECT_EQ("[1]", FXString::Format("[%d]", 1, 2, "three"));
    // Mismatched types print the argument as it is.
    EXPECT_EQ("[abc] [12]", FXString::Format("[%d] [%s]", "abc", 12));
    // Unknown conversions and a trailing '%' stay as written.
    EXPECT_EQ("[%y] 5%", FXString::Format("[%y] 5%"));
    EXPECT_EQ("", FormatWithArgs(nullptr, {}));
}

TEST(Formatting, PositionalPlaceholders) {
    EXPECT_EQ("Proxy region [z-1] and instance zone [z-2] are different.",
              CZuString::Format("Proxy region [{1}] and instance zone [{2}] are different.", "z-1", "z-2").str());
    EXPECT_EQ("{2} {0} {x} a", CZuString::Format("{2} {0} {x} {1}", "a").str());
    EXPECT_EQ("7 7", CZuString::Format("{1} {1}", 7).str());
}

TEST(Strings, SplitKeepsEmptyPartsUnlessAsked) {
    struct Case { std::string text, sep; int flags; std::vector<std::string> parts; };
    const std::vector<Case> cases = {
        {"cn-hangzhou|cn-hangzhou-k", "|", 0, {"cn-hangzhou", "cn-hangzhou-k"}},
        {"|", "|", 0, {"", ""}},
        {"a||b", "|", 0, {"a", "", "b"}},
        {"a||b", "|", FXString::FXSPLIT_SKIP_EMPTY, {"a", "b"}},
        {"Ubuntu;x86_64", ";", 0, {"Ubuntu", "x86_64"}},
        {"nosep", ";", 0, {"nosep"}},
        {"", ";", 0, {}},
        {"a--b", "--", 0, {"a", "b"}},
        {"whole", "", 0, {"whole"}},
    };
    for (const auto& c : cases) {
        std::vector<std::string> parts{"stale"};
        EXPECT_EQ(static_cast<int>(c.parts.size()), FXString::Split(c.text, c.sep, parts, c.flags)) << c.text;
        EXPECT_EQ(c.parts, parts) << c.text;
    }
}

TEST(Strings, CompareNoCaseOrdersLikeASortedConsole) {
    EXPECT_EQ(0, FXString::CompareNoCase("Region View", "region view"));
    EXPECT_LT(FXString::CompareNoCase("cn-beijing", "CN-Hangzhou"), 0);
    EXPECT_GT(FXString::CompareNoCase("b", "A"), 0);
    EXPECT_LT(FXString::CompareNoCase("ab", "abc"), 0);
}

TEST(Paths, AppendAndExtension) {
    EXPECT_EQ("/r/x.json", CZuPath::Append("/r", "x.json"));
    EXPECT_EQ("/r/x.json", CZuPath::Append("/r/", "x.json"));
    EXPECT_EQ("x.json", CZuPath::Append("", "x.json"));
    EXPECT_EQ("JSON", CZuPath::GetExt("/a.b/i-1_InstanceConfig.JSON"));
    EXPECT_EQ("", CZuPath::GetExt("/a.b/noext"));
    EXPECT_EQ("", CZuPath::GetExt(".profile"));
    EXPECT_EQ("gz", CZuPath::GetExt("x.tar.gz"));
}

class Files : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/hxcommon-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(tmpl));
        dir = tmpl;
    }
    void TearDown() override { std::filesystem::remove_all(dir); }
    std::string dir;
};

TEST_F(Files, WholeFileWriteReplacesAtomicallyAndReadsBack) {
    const std::string path = dir + "/mnt\\i-1_InstanceConfig.json";  // a backslash is just a character here
    ASSERT_TRUE(WriteWholeFile(path, "first"));
    ASSERT_TRUE(WriteWholeFile(path, std::string("second\0with nul", 15)));
    std::string text;
    ASSERT_TRUE(ReadWholeFile(path, text));
    EXPECT_EQ(std::string("second\0with nul", 15), text);
    long long size = 0;
    ASSERT_TRUE(FileSize(path, size));
    EXPECT_EQ(15, size);
    struct stat st{};
    ASSERT_EQ(0, ::stat(path.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777u) << "configuration text is the owner's";
    size_t entries = 0;
    for (auto& e : std::filesystem::directory_iterator(dir)) (void)e, ++entries;
    EXPECT_EQ(1u, entries) << "no temporary file is left behind";

    EXPECT_FALSE(WriteWholeFile(dir + "/no/such/folder/f", "x"));
    EXPECT_FALSE(ReadWholeFile(dir + "/absent", text));
    EXPECT_EQ(std::string("second\0with nul", 15), text) << "a failed read leaves the output alone";
    EXPECT_FALSE(FileSize(dir, size)) << "a folder has no file size";
}

TEST_F(Files, DeleteReportsTheReason) {
    ASSERT_TRUE(WriteWholeFile(dir + "/f", "x"));
    EXPECT_FALSE(CZuFile::Delete(dir + "/f").IsError());
    EXPECT_FALSE(FXPath::DoesPathExist(dir + "/f"));
    CZuError again = CZuFile::Delete(dir + "/f");
    EXPECT_TRUE(again.IsError());
    EXPECT_NE(std::string::npos, again.AsString().find("No such file")) << again.AsString();
    EXPECT_EQ("Success", CZuError().AsString());
}

TEST_F(Files, DirectoryListsEntriesOnceWithoutDotsAndHonoursFilesOnly) {
    for (const char* name : {"a.json", "b.txt", "c.JSON"}) ASSERT_TRUE(WriteWholeFile(dir + "/" + name, "x"));
    ASSERT_EQ(0, ::mkdir((dir + "/sub.json").c_str(), 0700));

    auto list = [&](const std::string& pattern, bool filesOnly) {
        CZuDirectory d;
        EXPECT_FALSE(d.Open(dir, pattern, filesOnly).IsError());
        std::set<std::string> names;
        SZuDirEntry entry;
        bool end = false;
        while (!d.GetEntry(&entry, end).IsError() && !end) EXPECT_TRUE(names.insert(entry.name).second) << entry.name;
        EXPECT_TRUE(entry.name.empty()) << "the end leaves the entry cleared";
        EXPECT_FALSE(d.Close().IsError());
        return names;
    };
    EXPECT_EQ((std::set<std::string>{"a.json", "b.txt", "c.JSON"}), list("*", true));
    EXPECT_EQ((std::set<std::string>{"a.json", "b.txt", "c.JSON", "sub.json"}), list("*", false));
    EXPECT_EQ((std::set<std::string>{"a.json"}), list("*.json", true));

    CZuDirectory missing;
    EXPECT_TRUE(missing.Open(dir + "/none", "*", true).IsError());
    SZuDirEntry entry;
    bool end = false;
    EXPECT_TRUE(missing.GetEntry(&entry, end).IsError()) << "reading a directory that never opened";
}

SVMInfo Vm(const std::string& name, const std::string& id) {
    SVMInfo vm;
    vm.name = name;
    vm.guid = id;
    return vm;
}

std::vector<std::string> Names(const std::vector<SVMInfo>& list) {
    std::vector<std::string> out;
    for (const auto& vm : list) out.push_back(vm.name);
    return out;
}

TEST(Filters, InstanceFilterTypes) {
    const std::vector<SVMInfo> all = {Vm("web-01", "i-1"), Vm("Web-02", "i-2"), Vm("db-01", "i-3")};
    struct Case { EFilterType type; std::vector<std::string> names; std::vector<std::string> expected; };
    const std::vector<Case> cases = {
        {FILTER_NONE, {"db-01"}, {"web-01", "Web-02", "db-01"}},
        {FILTER_INCLUDE_NAMES, {"WEB-01", "i-3"}, {"web-01", "db-01"}},  // names or ids, any case
        {FILTER_EXCLUDE_NAMES, {"web-02"}, {"web-01", "db-01"}},
        {FILTER_INCLUDE_PATTERN, {"web-*"}, {"web-01", "Web-02"}},
        {FILTER_EXCLUDE_PATTERN, {"*-01"}, {"Web-02"}},
        {FILTER_INCLUDE_NAMES, {}, {}},
    };
    for (const auto& c : cases) EXPECT_EQ(c.expected, Names(CVMInfo::_FilterVMInfoList(all, c.names, c.type))) << c.type;
}

TEST(Filters, DiskExclusionByIdNameOrPattern) {
    SDisk disk;
    disk.diskId = "d-bp1abc";
    disk.diskName = "data-logs";
    struct Case { std::vector<std::string> excluded; bool filtered; };
    const std::vector<Case> cases = {
        {{}, false},
        {{"D-BP1ABC"}, true},
        {{"data-logs"}, true},
        {{"data-*"}, true},
        {{"d-bp1ab?"}, true},
        {{"d-other", "sys-*"}, false},
    };
    for (const auto& c : cases) {
        MountCtx ctx;
        ctx.excludedDisks = c.excluded;
        EXPECT_EQ(c.filtered, CVMInfo::IsDiskFiltered(ctx, disk)) << ::testing::PrintToString(c.excluded);
    }
}

TEST(Records, EveryErrorCodeHasAText) {
    for (auto code : {VMINFO_ERR_NONE, VMINFO_ERR_DISK_CREATE, VMINFO_ERR_PROXY_DISK_LIMIT, VMINFO_ERR_JOB_CANCELLED})
        EXPECT_STRNE("Unknown error", EVMInfoErrorText(code)) << code;
    EXPECT_STREQ("Unknown error", EVMInfoErrorText(static_cast<EVMInfoError>(9999)));
}

}  // namespace
