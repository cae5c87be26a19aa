#include "log_peers.h"

#ifndef BENCH_SPDLOG
#define BENCH_SPDLOG 0
#endif
#ifndef BENCH_GLOG
#define BENCH_GLOG 0
#endif

#if BENCH_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif
#if BENCH_GLOG
#include <glog/logging.h>
#endif

namespace {

// Fills the record to the size of ours.
#if BENCH_SPDLOG || BENCH_GLOG
constexpr char kText[] =
    "index page refused: its checksum does not match the bytes that were read from the container, which says that it "
    "was written half or changed behind the back of the server; the code was File not found, the database SAMPLE, the "
    "function sqliPageRead, the instance default, the partition 0, the application 127.0.0.1.50000.20260101, the user "
    "of the application the owner of the instance, the engine unit the agent for this application, the probe 20";
#endif
#if BENCH_SPDLOG
std::shared_ptr<spdlog::logger> g_spdlog;
#endif

}  // namespace

namespace bench {

bool hasLogPeer(std::size_t which) { return which == 0 ? BENCH_SPDLOG != 0 : BENCH_GLOG != 0; }

void openLogPeers([[maybe_unused]] const std::string& directory) {
#if BENCH_SPDLOG
  g_spdlog = spdlog::basic_logger_mt("bench", directory + "/spdlog.log");
  g_spdlog->flush_on(spdlog::level::info);
#endif
#if BENCH_GLOG
  FLAGS_logtostderr = false;
  FLAGS_logbuflevel = -1;
  FLAGS_log_dir = directory;
  google::SetLogDestination(google::GLOG_ERROR, "");
  google::SetLogDestination(google::GLOG_WARNING, "");
  google::SetLogDestination(google::GLOG_INFO, (directory + "/glog.").c_str());
  google::InitGoogleLogging("log_bench");
#endif
}

void writeSpdlog([[maybe_unused]] std::uint64_t number) {
#if BENCH_SPDLOG
  g_spdlog->info("{} {}", kText, number);
#endif
}

void writeGlog([[maybe_unused]] std::uint64_t number) {
#if BENCH_GLOG
  LOG(INFO) << kText << ' ' << number;
#endif
}

}  // namespace bench
