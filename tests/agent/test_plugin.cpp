// A stand-in plug-in for the loader test: exports the factory, refuses when asked to, and
// leaves a mark file when its object is destroyed (so the test sees the destructor run
// through IVMInfo's virtual destructor before the library is closed).
#include <cstdlib>
#include <fstream>

#include "VMInfo.h"

namespace {
class TestInfo : public CVMInfo {
public:
    explicit TestInfo(VirtualServerInstanceType t) : CVMInfo(t) {}
    ~TestInfo() override {
        if (const char* mark = std::getenv("HX_TEST_PLUGIN_MARK")) std::ofstream(mark) << "destroyed";
    }
    int Connect(const string&, const string& user, const string&) override { return user == "good" ? 1 : 0; }
};
}  // namespace

extern "C" __attribute__((visibility("default"))) int CreateAliCloudInfoObject(VirtualServerInstanceType type,
                                                                               IVMInfo** out) {
    if (std::getenv("HX_TEST_PLUGIN_REFUSE")) {
        *out = nullptr;
        return 0;
    }
    *out = new TestInfo(type);
    return 1;
}
