// What the host supplies, the defaults without it, and the names of components and functions.

#include "platform/host.h"

#include <cstring>

#include "platform/region.h"
#include "platform/support.h"
#include "veksys/codes.h"
#include "veksys/diag/trace.h"
#include "veksys/diag/trace_control.h"
#include "veksys_functions.h"

namespace {

constexpr EcfFunctionId kHostFunction = ecfFunctionId(0x09, 4711);

class Host : public ::testing::Test {
 protected:
  void SetUp() override {
    host_.size = sizeof host_;
    host_.context = this;
    ::unsetenv("VEKINSTANCE");
    ::unsetenv("VEKPATH");
  }
  void TearDown() override { vekHostInstall(nullptr); }

  void useInstanceName(const char* name) {
    vek::ossCopyText(control_.instanceName, sizeof control_.instanceName, name);
    host_.instanceControl = [](void* context) -> const VekInstanceControl* {
      return &static_cast<Host*>(context)->control_;
    };
  }

  VekHost host_ = {};
  VekInstanceControl control_ = {};
};

TEST_F(Host, IsNotNeeded) {
  EXPECT_STREQ(vekInstanceName(), "default");
  EXPECT_EQ(vekInstanceControl()->DIAGLEVEL, 6);
  EXPECT_EQ(vekInstanceControl()->NOTIFYLEVEL, 3);
  EXPECT_EQ(vek::hostEngineUnitNumber(), SQLT_NO_ENGINE_UNIT);
  EXPECT_EQ(vekInstallationPath()[0], '/');
  vek::hostWorkloadDisplay(kHostFunction, true);
  vek::hostDumpEngineUnit(SQLO_NOMEM);
}

TEST_F(Host, NamesTheInstanceBeforeTheEnvironmentDoes) {
  ::setenv("VEKINSTANCE", "fromenv", 1);
  EXPECT_STREQ(vekInstanceName(), "fromenv");
  ::setenv("VEKINSTANCE", "../evil", 1);
  EXPECT_STREQ(vekInstanceName(), "default");
  useInstanceName("engine.one");
  ASSERT_EQ(vekHostInstall(&host_), 0);
  EXPECT_STREQ(vekInstanceName(), "engine.one");
  EXPECT_EQ(vekInstanceControl(), &control_);
}

// Two instances whose names begin alike, one named as an object of the other could be.
TEST(HostInstance, IsKeptOnceAttachedAndMeetsNoOther) {
  const vek::platformtest::Instance instance;
  for (const char* name : {"twin", "twin.trace", "twin.trace.new"})
    vek::platformtest::inProcess([name] {
      ::setenv("VEKINSTANCE", name, 1);
      EXPECT_EQ(sqltTraceFacilityCreate(SQLT_TRACE_SIZE_MINIMUM), 0);
      ::setenv("VEKINSTANCE", "other", 1);
      EXPECT_STREQ(vekInstanceName(), name);
      static VekInstanceControl control = {};
      vek::ossCopyText(control.instanceName, sizeof control.instanceName, "late");
      VekHost host = {};
      host.size = sizeof host;
      host.instanceControl = [](void*) -> const VekInstanceControl* { return &control; };
      EXPECT_EQ(vekHostInstall(&host), SQLO_INV_PARM);
      vek::ossCopyText(control.instanceName, sizeof control.instanceName, name);
      EXPECT_EQ(vekHostInstall(&host), 0);
    });
  vek::platformtest::inProcess([] {
    ::setenv("VEKINSTANCE", "twin", 1);
    EXPECT_EQ(sqltInquireTraceBufferSize(), SQLT_TRACE_SIZE_MINIMUM);
  });
}

TEST_F(Host, IsRefusedWithoutEffect) {
  useInstanceName("good");
  ASSERT_EQ(vekHostInstall(&host_), 0);
  VekHost other = host_;
  other.context = nullptr;
  for (const std::size_t size : {std::size_t{0}, sizeof other - 1, sizeof other + 8}) {
    other.size = size;
    EXPECT_EQ(vekHostInstall(&other), SQLO_INV_PARM) << size;
  }
  useInstanceName("a/b");
  EXPECT_EQ(vekHostInstall(&host_), SQLO_INV_PARM);
  useInstanceName("good");
  EXPECT_STREQ(vekInstanceName(), "good");
}

TEST_F(Host, TellsTheEngineUnitEitherWay) {
  host_.currentEngineUnit = [](void*, VekEngineUnit* out) { return (out->number = 17) != 0; };
  vekHostInstall(&host_);
  EXPECT_EQ(vek::hostEngineUnitNumber(), 17U);
  host_.currentEngineUnitNumber = [](void*) -> std::uint64_t { return 18; };
  vekHostInstall(&host_);
  EXPECT_EQ(vek::hostEngineUnitNumber(), 18U);
  host_.currentEngineUnitNumber = [](void*) -> std::uint64_t { return 0; };
  vekHostInstall(&host_);
  EXPECT_EQ(vek::hostEngineUnitNumber(), SQLT_NO_ENGINE_UNIT);
}

TEST_F(Host, TellsTheInstallationPathBeforeTheEnvironmentDoes) {
  ::setenv("VEKPATH", "/opt/veksys", 1);
  EXPECT_STREQ(vekInstallationPath(), "/opt/veksys");
  host_.installationPath = [](void*) { return "/srv/veksys"; };
  vekHostInstall(&host_);
  EXPECT_STREQ(vekInstallationPath(), "/srv/veksys");
  ::setenv("VEKPATH", "relative", 1);
  vekHostInstall(nullptr);
  EXPECT_EQ(vekInstallationPath()[0], '/');
}

// A host's names are in the region, for others and when the host has gone.
TEST(HostNames, AreInTheRegionInstalledBeforeAttachingOrAfter) {
  for (const bool attachFirst : {false, true}) {
    const vek::platformtest::Instance instance;
    vek::platformtest::inProcess([attachFirst] {
      static const VekFunctionName names[] = {{kHostFunction, "keyInsert"}, {kHostFunction + 1, nullptr}};
      EXPECT_EQ(attachFirst ? vek::regionAttach() : 0, 0);
      vek::platformtest::installHost([](VekHost& host) {
        host.functionNames = names;
        host.functionNameCount = 2;
      });
      EXPECT_STREQ(ecfGetFunctionName(kHostFunction), "keyInsert");
      EXPECT_EQ(ecfGetFunctionName(kHostFunction + 1), nullptr);
      ASSERT_EQ(vek::regionAttach(), 0);
      ASSERT_EQ(vekHostInstall(nullptr), 0);
      EXPECT_STREQ(ecfGetFunctionName(kHostFunction), "keyInsert");
    });
  }
}

TEST(Ecf, NamesComponentsAndFunctions) {
  EXPECT_STREQ(ecfGetComponentName(ecfFunctionId(0x0F, 1)), "operating-system services");
  EXPECT_STREQ(ecfGetComponentShortName(ecfComponentIdOfZrc(SQLO_NOMEM)), "SQLO");
  EXPECT_STREQ(ecfGetComponentName(ecfFunctionId(0xFE, 1)), "Unknown");
  EXPECT_EQ(ecfGetComponentShortName(ecfFunctionId(0xFE, 1)), nullptr);
  EXPECT_STREQ(ecfGetComponentName(0x0F), "Unknown");  // no function identifier
  EXPECT_STREQ(ecfGetFunctionName(vek::FID_pdZRCGetDescription), "pdZRCGetDescription");
  EXPECT_EQ(ecfGetFunctionName(ecfFunctionId(0x86, 99999)), nullptr);
  const std::pair<const char*, std::int32_t> finds[] = {{"sqlo", 0x0F}, {"SQLZ", 0},     {"Utilities", 0x1A},
                                                        {"CF", 0xC0},   {"SQLPR", 0x10}, {"sqluc", 0xB0},
                                                        {"none", -1},   {"", -1}};
  for (const auto& [name, number] : finds) EXPECT_EQ(ecfFindComponent(name), number) << name;
  EXPECT_EQ(ecfFindComponent(nullptr), -1);
}

}  // namespace
