// Diagnostic paths: what a value names, what a directory must be like, which one a process uses.
#include "diag/base/pddiagpath.h"

#include <sys/stat.h>

#include <cstring>

#include "platform/ports.h"
#include "platform/support.h"
#include "veksys/codes.h"
#include "veksys/diag/log.h"

using namespace vek;
using namespace vek::platformtest;
namespace fs = std::filesystem;

namespace {

// ---- an instance of three members on two hosts, and what is reported about it -----------------------------------

constexpr PortMember kMembers[] = {{0, "alpha"}, {3, "alpha"}, {4, "beta"}};
bool t_isUnreadable = false;
std::vector<std::string> t_reported;

MemberAnswer knownMember(std::int16_t partition, const char* host, PortMember* out) {
  if (t_isUnreadable) return MemberAnswer::kUnreadable;
  for (const PortMember& member : kMembers) {
    if (partition != ANY_PARTITION && partition != member.partition) continue;
    if (host != nullptr && std::string(host) != member.host) continue;
    *out = member;
    return MemberAnswer::kFound;
  }
  return MemberAnswer::kUnknown;
}

void noteReport(const PortEvent& event) { t_reported.emplace_back(event.message); }

// A process whose host configures these paths. Reports are kept instead of written.
void configure(const std::string& path, const std::string& alternate = "", std::int16_t partition = 3) {
  VekInstanceControl& control = installControl();
  control.partition = partition;
  ossCopyText(control.DIAGPATH, sizeof control.DIAGPATH, path.c_str());
  ossCopyText(control.ALT_DIAGPATH, sizeof control.ALT_DIAGPATH, alternate.c_str());
  g_ports.member = knownMember;
  g_ports.reportEvent = noteReport;
}

struct Answer {
  SqlzZrc zrc;
  std::string path;
};

template <class Call>
Answer ask(Call call, std::size_t bytes = PD_DIAGPATH_BYTES) {
  std::string buffer(bytes, '#');
  const SqlzZrc zrc = call(buffer.data(), bytes);
  buffer.resize(std::strlen(buffer.data()));
  return {zrc, buffer};
}

Answer primary() {
  return ask([](char* buffer, std::size_t bytes) { return sqltGetDiagPath(buffer, bytes, false); });
}
Answer alternate() { return ask(sqltGetAltDiagPath); }

mode_t modeOf(const std::string& path) {
  struct stat status = {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST_APART(DiagPathValue, NamesTheDirectoryOfAMember) {
  const std::string below = instance.directory() + "/instance/diag/";
  const struct {
    const char* value;
    std::uint32_t type;
    SqlzZrc zrc;
    std::string path;  // for member 3 on alpha
  } cases[] = {
      {"/d", PD_DIAGPATH_PLAIN, 0, "/d/"},
      {"  /d//  ", PD_DIAGPATH_PLAIN, 0, "/d/"},
      {"/", PD_DIAGPATH_PLAIN, 0, "/"},
      {"/a b/c d", PD_DIAGPATH_PLAIN, 0, "/a b/c d/"},
      {"/d$n", PD_DIAGPATH_PLAIN, 0, "/d$n/"},
      {"/d $n", PD_DIAGPATH_BY_NODE, 0, "/d/NODE0003/"},
      {"/d/ $m/ ", PD_DIAGPATH_BY_MEMBER, 0, "/d/DIAG0003/"},
      {"/d   $h", PD_DIAGPATH_BY_HOST, 0, "/d/HOST_alpha/"},
      {"/a b $h$n", PD_DIAGPATH_BY_HOST | PD_DIAGPATH_BY_NODE, 0, "/a b/HOST_alpha/NODE0003/"},
      {"/ $h$m/", PD_DIAGPATH_BY_HOST | PD_DIAGPATH_BY_MEMBER, 0, "/HOST_alpha/DIAG0003/"},
      {"$n", PD_DIAGPATH_BY_NODE, 0, below + "NODE0003/"},
      {"", PD_DIAGPATH_PLAIN, 0, below},
      {"/d $n$h", PD_DIAGPATH_UNKNOWN, SQLT_DIAGPATH_PATTERN_UNKNOWN, "/d/"},
      {"/d $x", PD_DIAGPATH_UNKNOWN, SQLT_DIAGPATH_PATTERN_UNKNOWN, "/d/"},
      {"relative $n", PD_DIAGPATH_BY_NODE, SQLO_PATH_NOT_ABSOLUTE, ""},
  };
  configure("");
  for (const auto& each : cases) {
    SCOPED_TRACE(each.value);
    EXPECT_EQ(pdDiagpathType(each.value), each.type);
    EXPECT_EQ(pdIsDiagpathSplit(each.value), each.type != PD_DIAGPATH_PLAIN && each.type != PD_DIAGPATH_UNKNOWN);
    const auto [zrc, path] =
        ask([&each](char* buffer, std::size_t bytes) { return pdDiagpathSplitGet(each.value, buffer, bytes); });
    EXPECT_EQ(zrc, each.zrc);
    EXPECT_EQ(path, each.path);
  }
}

TEST_APART(DiagPathValue, SaysWhyItFallsBackToThePlainPath) {
  constexpr char kNode[] = "Node number ( 3 ) is specified when DIAGPATH is not splitted";
  constexpr char kInstead[] = "Problem of getting split-diagpath, using following diagpath instead: /d/";
  const struct {
    const char* value;
    const char* host;
    std::int16_t node;
    bool unreadable;
    const char* path;
    std::vector<std::string> reported;
  } cases[] = {
      {"/d $h$n", nullptr, 4, false, "/d/HOST_beta/NODE0004/", {}},
      {"/d $n", "beta", -1, false, "/d/NODE0004/", {}},
      {"/d $h", "alpha", 0, false, "/d/HOST_alpha/", {}},
      {"/d", nullptr, -1, false, "/d/", {}},
      {"/d $n", nullptr, 7, false, "/d/", {"The specified node number, 7 ,does not exist in veknodes.cfg", kInstead}},
      {"/d $n", "beta", 3, false, "/d/", {"The specified node number, 3 ,does not exist in veknodes.cfg", kInstead}},
      {"/d $h", "gamma", -1, false, "/d/", {"The specified host, gamma,does not exist in veknodes.cfg", kInstead}},
      {"/d $h$m", "gamma", 3, false, "/d/", {"The specified host, gamma,does not exist in veknodes.cfg", kInstead}},
      {"/d $m", nullptr, 3, true, "/d/", {"Failed to read veknodes.cfg", kInstead}},
      {"/d", "alpha", 3, false, "/d/", {kNode, "Host ( alpha ) is specified when DIAGPATH is not splitted"}},
  };
  configure("");
  for (const auto& each : cases) {
    SCOPED_TRACE(testing::Message() << each.value << " " << (each.host == nullptr ? "-" : each.host) << each.node);
    t_reported.clear();
    t_isUnreadable = each.unreadable;
    const auto [zrc, path] = ask([&each](char* buffer, std::size_t bytes) {
      return pdDiagpathSplitGetByNode(each.value, each.host, each.node, buffer, bytes);
    });
    EXPECT_EQ(zrc, each.reported.empty() ? 0 : SQLT_DIAGPATH_SPLIT_MISSING);
    EXPECT_EQ(path, each.path);
    EXPECT_EQ(t_reported, each.reported);
  }
}

// A name from a file must not lead out of the directory, nor a path out of its buffer.
TEST_APART(DiagPathValue, HostileNamesAndLengthsStayInside) {
  configure("");
  g_ports.member = [](std::int16_t, const char*, PortMember* out) {
    *out = {3, "../../etc"};
    return MemberAnswer::kFound;
  };
  const auto split = [](const std::string& value, std::size_t room) {
    return ask([&](char* buffer, std::size_t bytes) { return pdDiagpathSplitGet(value.c_str(), buffer, bytes); }, room);
  };
  EXPECT_EQ(split("/d $h", 256).path, "/d/");
  EXPECT_EQ(split("/d $n", 256).path, "/d/");
  g_ports.member = knownMember;
  const std::string longest = "/" + std::string(253, 'x');
  EXPECT_EQ(split(longest, 256).path, longest + "/");
  EXPECT_EQ(split(longest, 255).zrc, SQLO_PATH_TOO_LONG);
  EXPECT_EQ(split(longest, 255).path, "");
  EXPECT_EQ(split(longest + "x", 4096).zrc, SQLO_PATH_TOO_LONG);
  EXPECT_EQ(split(longest.substr(0, 250) + " $n", 4096).zrc, SQLO_PATH_TOO_LONG);
  EXPECT_EQ(split("/" + std::string(5000, 'x'), 4096).zrc, SQLO_PATH_TOO_LONG);
  char one = '#';
  EXPECT_EQ(pdDiagpathSplitGet("/d", &one, 0), SQLO_INV_PARM);
  EXPECT_EQ(one, '#');
}

TEST_APART(DiagDirectory, IsMadeForItsOwnerAloneAndTrustedOnlyWhenNobodyElseCanWriteInIt) {
  configure("");
  const std::string directory = instance.directory() + "/one/two/three";
  EXPECT_EQ(pdDiagpathVerify(directory.c_str()), SQLO_PATH_NOT_EXIST);
  EXPECT_EQ(pdMkdirInternal((directory + "//").c_str()), 0);
  EXPECT_EQ(pdMkdirInternal(directory.c_str()), 0);
  EXPECT_EQ(modeOf(directory), 0700U);
  EXPECT_EQ(modeOf(instance.directory() + "/one"), 0700U);
  EXPECT_EQ(pdDiagpathVerify(directory.c_str()), 0);
  for (const mode_t mode : {0720U, 0702U, 01777U}) {
    ASSERT_EQ(::chmod(directory.c_str(), mode), 0);
    EXPECT_EQ(pdDiagpathVerify(directory.c_str()), SQLT_DIAGPATH_NOT_TRUSTED);
  }
  ASSERT_EQ(::chmod(directory.c_str(), 0755), 0);
  EXPECT_EQ(pdDiagpathVerify(directory.c_str()), 0);
  const std::string file = directory + "/file";
  std::fclose(std::fopen(file.c_str(), "w"));
  const std::string link = instance.directory() + "/link";
  fs::create_symlink(directory, link);
  EXPECT_EQ(pdDiagpathVerify(link.c_str()), 0);
  EXPECT_EQ(pdDiagpathVerify(file.c_str()), SQLO_PATH_NOT_DIRECTORY);
  t_reported.clear();
  EXPECT_EQ(pdMkdirInternal((file + "/below").c_str()), SQLO_PATH_NOT_DIRECTORY);
  EXPECT_EQ(t_reported, std::vector{"The directory " + file + "/below cannot be made"});
  EXPECT_EQ(pdMkdirInternal("relative"), SQLO_PATH_NOT_ABSOLUTE);
  EXPECT_EQ(pdMkdirInternal(nullptr), SQLO_INV_PARM);
}

TEST_APART(DiagDirectory, WhatTheSystemRefusesIsTold) {
  const std::string directory = instance.directory();
  const std::string link = instance.path("link/");
  fs::create_symlink(directory, instance.path("link"));
  const std::pair<int, SqlzZrc> cases[] = {
      {EACCES, SQLO_PATH_NOT_WRITABLE}, {EROFS, SQLO_FILE_READ_ONLY}, {ENOSPC, SQLO_DISK_FULL}};
  for (const auto& [error, zrc] : cases) {
    makeFail<&OssCalls::faccessat>(0, error);
    EXPECT_EQ(pdDiagpathVerify(directory.c_str()), zrc);
  }
  static bool isLinkAlone = true;
  ossCalls().lstat = [](const char* path, struct stat* out) {
    const int result = ::lstat(path, out);
    if (!isLinkAlone || S_ISLNK(out->st_mode)) out->st_uid = ::geteuid() + 1;  // of a third user
    return result;
  };
  EXPECT_EQ(pdDiagpathVerify(link.c_str()), SQLO_PATH_IS_SYMLINK);
  isLinkAlone = false;
  EXPECT_EQ(pdDiagpathVerify(directory.c_str()), SQLT_DIAGPATH_NOT_TRUSTED);
}

TEST_APART(DiagPath, FollowsTheConfigurationAndMakesWhatIsMissing) {
  const std::string base = instance.directory() + "/logs";
  configure("");
  EXPECT_EQ(primary().path, instance.directory() + "/instance/diag/");
  EXPECT_EQ(alternate().zrc, SQLT_DIAGPATH_NO_ALTERNATE);
  EXPECT_EQ(alternate().path, "");
  EXPECT_EQ(t_reported, (std::vector<std::string>{"DBM CFG param ALT_DIAGPATH is not set"})) << "once";

  configure(base + " $h$n", base + "/other $m");
  EXPECT_EQ(primary().path, base + "/HOST_alpha/NODE0003/");
  EXPECT_EQ(alternate().path, base + "/other/DIAG0003/");
  EXPECT_EQ(ask(sqltGetCaDiagPath).path, base + "/HOST_alpha/NODE0003/");
  EXPECT_EQ(modeOf(base + "/HOST_alpha/NODE0003"), 0700U);
  VekInstanceControl& control = installControl();
  control.partition = 4;
  EXPECT_EQ(primary().path, base + "/HOST_beta/NODE0004/");
  ossCopyText(control.CF_DIAGPATH, sizeof control.CF_DIAGPATH, (base + "/cf").c_str());
  EXPECT_EQ(ask(sqltGetCaDiagPath).path, base + "/cf/");
  EXPECT_TRUE(fs::is_directory(base + "/cf"));

  EXPECT_EQ(ask([](char* to, std::size_t bytes) { return pdGetDiagPath(6, to, bytes); }).zrc, SQLO_INV_PARM);
  EXPECT_EQ(ask([](char* to, std::size_t) { return sqltGetDiagPath(to, 5, false); }).zrc, SQLO_PATH_TOO_LONG);
  EXPECT_EQ(sqltGetDiagPath(nullptr, 5, false), SQLO_INV_PARM);
}

TEST(DiagPath, ValuesThatNameNothingGiveTheDefaultAndAReport) {
  const Instance instance;
  const std::string below = instance.directory() + "/instance/diag/";
  for (const std::string& value : {std::string("logs"), "/" + std::string(300, 'x')})
    inProcess([&] {
      configure(value, "other");
      EXPECT_EQ(primary().path, below);
      EXPECT_EQ(alternate().zrc, SQLO_PATH_NOT_ABSOLUTE);
      EXPECT_EQ(pdSwitchToAltDiagPath(), SQLO_PATH_NOT_ABSOLUTE);
      const std::string why = " ) is not an absolute path of at most 255 characters";
      EXPECT_EQ(t_reported,
                (std::vector{"DIAGPATH ( " + value + why, "The default diagnostic path is used instead: " + below,
                             "ALT_DIAGPATH ( other" + why}))
          << "once";
    });
}

// The report is itself a record that needs the path: it comes behind the record that had it decided, once.
TEST_APART(DiagPath, TheReportStandsInTheLogBehindTheFirstRecord) {
  const auto report = g_ports.reportEvent;
  configure("logs");
  g_ports.reportEvent = report;
  for (int i = 0; i < 2; ++i) EXPECT_EQ(pdLogPrintf(0, ecfFunctionId(0x86, 1), 0, 1, PD_LEVEL_INFO, "record %d", i), 0);
  const std::string log = contentOf(instance.directory() + "/instance/diag/vekdiag.log");
  const std::size_t at = log.find("DIAGPATH ( logs ) is not an absolute path");
  ASSERT_NE(at, std::string::npos);
  EXPECT_LT(log.find("record 0"), at);
  EXPECT_GT(log.find("record 1"), at);
  EXPECT_EQ(log.find("DIAGPATH ( logs )", at + 1), std::string::npos);
}

TEST(DiagPath, OneDirectoryUnderTwoNamesIsNoAlternate) {
  const Instance instance;
  const std::string base = instance.directory() + "/logs";
  fs::create_directory(base);
  fs::permissions(base, fs::perms::owner_all);
  fs::create_symlink(base, instance.directory() + "/link");
  for (const std::string& other : {base + "//", instance.directory() + "/link"})
    inProcess([&] {
      configure(base, other);
      EXPECT_EQ(pdSwitchToAltDiagPath(), SQLT_DIAGPATH_SAME_AS_ALTERNATE);
      EXPECT_EQ(t_reported, (std::vector<std::string>{"ALT_DIAGPATH and DIAGPATH should not be the same"}));
      EXPECT_EQ(pdiDiagDirectory().path, base + "/");
    });
}

TEST_APART(DiagPath, AfterTheSwitchTheAlternateIsInUseAlsoInChildren) {
  const std::string base = instance.directory() + "/logs";
  const std::string other = instance.directory() + "/other/";
  configure(base, other);
  EXPECT_EQ(pdiDiagDirectory().path, base + "/");
  EXPECT_FALSE(pdiIsOnAlternate());
  EXPECT_EQ(pdSwitchToAltDiagPath(), 0);
  EXPECT_EQ(pdSwitchToAltDiagPath(), 0);
  EXPECT_EQ(pdiDiagDirectory().path, other);
  EXPECT_EQ(primary().path, base + "/") << "what is configured stays what it is";
  EXPECT_EQ(t_reported.size(), 1U);
  inProcess([&] { EXPECT_EQ(pdiDiagDirectory().path, other); });
}

TEST_APART(DiagPath, ADirectoryThatWentAwayIsMadeAgainAndOneThatCouldNotBeMadeIsTriedAgain) {
  const std::string base = instance.directory() + "/logs";
  configure(base);
  EXPECT_EQ(pdiDiagDirectory().zrc, 0);
  fs::remove(base);
  EXPECT_EQ(pdiRenewDiagDirectory(), 0);
  EXPECT_TRUE(fs::is_directory(base));
  fs::remove(base);
  std::fclose(std::fopen(base.c_str(), "w"));  // in its place
  EXPECT_EQ(pdiRenewDiagDirectory(), SQLO_PATH_NOT_DIRECTORY);
  EXPECT_EQ(pdiDiagDirectory().zrc, SQLO_PATH_NOT_DIRECTORY);
  EXPECT_EQ(primary().zrc, SQLO_PATH_NOT_DIRECTORY);
  EXPECT_EQ(pdiDiagDirectory().path, base + "/") << "for who has to say where it failed";
  fs::remove(base);
  EXPECT_EQ(pdiDiagDirectory().zrc, 0);
  EXPECT_TRUE(fs::is_directory(base));
}

TEST(DiagPath, ADefaultIsKeptOnceItWasUsableUnlessItIsShort) {
  const Instance instance;
  const auto defaultPath = [] { return ask(sqltGetDefaultDiagPath); };
  const auto below = [&instance](const char* name) { return instance.directory() + name; };
  inProcess([&] {
    configure("/elsewhere");
    std::fclose(std::fopen(below("/file").c_str(), "w"));
    ::setenv("VEK_INSTANCE_DIR", below("/file").c_str(), 1);
    EXPECT_EQ(defaultPath().zrc, SQLO_PATH_NOT_DIRECTORY);
    EXPECT_EQ(defaultPath().path, "") << "a failure is not kept";
    ::setenv("VEK_INSTANCE_DIR", below("/first").c_str(), 1);
    EXPECT_EQ(defaultPath().path, below("/first/diag/"));
    EXPECT_EQ(ask(sqltGetDefaultAltDiagPath).path, below("/first/diag_alternate/"));
    ::setenv("VEK_INSTANCE_DIR", below("/second").c_str(), 1);
    EXPECT_EQ(defaultPath().path, below("/first/diag/"));
  });
  inProcess([&] {  // paths of 9 and 10 characters, in a file system that has them
    static std::string real = instance.directory();
    ossCalls().lstat = [](const char*, struct stat* out) { return ::lstat(real.c_str(), out); };
    ossCalls().faccessat = [](int, const char*, int, int) { return 0; };
    for (const auto& [directory, path] :
         {std::pair{"/ab", "/ab/diag/"}, {"/abc", "/abc/diag/"}, {"/d", "/abc/diag/"}}) {
      ::setenv("VEK_INSTANCE_DIR", directory, 1);
      EXPECT_EQ(defaultPath().path, path);
    }
  });
}

// Threads that ask while the configuration is decided get one answer, whole.
TEST_APART(DiagPath, ThreadsThatAskAtOnceGetOneAnswer) {
  const std::string base = instance.directory() + "/logs";
  configure(base + " $n", base + "/other");
  std::atomic<int> wrong = 0;
  inThreads(8, [&](unsigned) {
    for (int round = 0; round < 100; ++round)
      if (pdiDiagDirectory().path != base + "/NODE0003/" || pdiDiagDirectory().zrc != 0) ++wrong;
  });
  EXPECT_EQ(wrong, 0);
}

}  // namespace
