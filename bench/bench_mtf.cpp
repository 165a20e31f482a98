// Backup-set stream throughput against tar on the same disk.
//
//   bench_mtf DIR [FILES [BIG_FILES [BIG_MIB [ROUNDS]]]]
//
// Builds a tree of FILES files (sizes spread log-uniformly over 1 KiB..1 MiB, half
// of each file random, half repeated text) plus BIG_FILES files of BIG_MIB MiB under
// DIR/tree, then times: tar -cf, MTF backup to file:// on 1 and 4 channels, tar -xf,
// and MTF restore of the whole set on 1 and 4 workers, ROUNDS times over. Each
// step runs in a child process so its peak RSS and CPU time are its own. Prints
// one Markdown table row per step and round, then the medians: the machine is
// shared, so only ratios of steps run back to back mean much.

#include <ace/Log_Msg.h>
#include <algorithm>
#include <functional>
#include <vector>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "host/mtf/local_tree.h"
#include "host/mtf/mtf_backup.h"
#include "host/mtf/mtf_restore.h"

static std::string g_dir;
static double g_mib = 0;

static void make_tree(int files, int big, int big_mib)
{
  std::mt19937_64 gen(42);
  system(("rm -rf '" + g_dir + "' && mkdir -p '" + g_dir + "/tree'").c_str());
  uint64_t total = 0;
  std::string text = "The quick brown fox jumps over the lazy dog. ";
  for (int i = 0; i < files; ++i)
  {
    std::string dir = g_dir + "/tree/d" + std::to_string(i / 200) + "/e" + std::to_string(i / 20 % 10);
    if (i % 20 == 0)
      system(("mkdir -p '" + dir + "'").c_str());
    size_t size = static_cast<size_t>(1024.0 * std::pow(1024.0, std::uniform_real_distribution<>(0, 1)(gen)));
    std::string data(size, '\0');
    for (size_t k = 0; k < size / 2; ++k)
      data[k] = static_cast<char>(gen());
    for (size_t k = size / 2; k < size; ++k)
      data[k] = text[k % text.size()];
    write_file(dir + "/f" + std::to_string(i), data);
    total += size;
  }
  for (int i = 0; i < big; ++i)
  {
    std::string chunk(1024 * 1024, '\0');
    FILE* f = fopen((g_dir + "/tree/big" + std::to_string(i)).c_str(), "wb");
    for (int m = 0; m < big_mib; ++m)
    {
      for (size_t k = 0; k < chunk.size(); k += 8)
      {
        uint64_t v = m % 2 ? gen() : k;
        memcpy(&chunk[k], &v, 8);
      }
      fwrite(chunk.data(), 1, chunk.size(), f);
    }
    fclose(f);
    total += static_cast<uint64_t>(big_mib) << 20;
  }
  g_mib = total / 1048576.0;
}

static void backup(unsigned channels)
{
  Local_Backup_Factory factory;
  factory.record.root = g_dir + "/tree";
  MTF_Metadata md;
  md.set_agent("bench");
  MTF::Event_Handler handler;
  MTF_Backup b(md, handler, nullptr);
  b.pool_uuid("bench");
  b.pool_url("file://" + g_dir + "/pool");
  b.host_uuid("h");
  b.minor_resource_id("c" + std::to_string(channels));
  b.seq(0);
  b.channel_num(channels);
  b.callback_factory(&factory);
  // Every top-level directory (d0, d1, ... of 200 files each) and every big file
  // is one source.
  for (int i = 0; access((g_dir + "/tree/d" + std::to_string(i)).c_str(), F_OK) == 0; ++i)
    b.add_source("d" + std::to_string(i), "/d" + std::to_string(i) + "/");
  for (int i = 0; access((g_dir + "/tree/big" + std::to_string(i)).c_str(), F_OK) == 0; ++i)
    b.add_source("big", "/big" + std::to_string(i));
  _exit(b.backup() == 0 ? 0 : 1);
}

static void restore(unsigned workers)
{
  // The target exists, as a restore's target does: the set may hold only files
  // at its top, whose restore creates no directory.
  std::string target = g_dir + "/out" + std::to_string(workers);
  mkdir(target.c_str(), 0755);
  Local_Restore_Factory factory(target);
  MTF::Event_Handler handler;
  MTF_Restore r(handler);
  r.callback_factory(&factory);
  r.pool_uuid("bench");
  r.pool_url("file://" + g_dir + "/pool");
  r.backup_host_uuid("h");
  r.backup_minor_resource_id("c" + std::to_string(workers));
  r.seq(1);
  r.restore_select({{{"dir", "/"}}});
  r.channel_num(workers);
  _exit(r.restore() == 0 && r.failed_count() == 0 ? 0 : 1);
}

struct Result
{
  double seconds = 0;
  double cpu = 0;
  long rss_mib = 0;
  bool ok = false;
};

// Runs `step` in a child process and measures it, the page cache written back
// before and after (so a step pays for its own writes).
template <typename F>
static Result run(F step)
{
  system("sync");
  auto t0 = std::chrono::steady_clock::now();
  pid_t pid = fork();
  if (pid == 0)
  {
    step();
    _exit(0);
  }
  int status = 0;
  struct rusage ru;
  wait4(pid, &status, 0, &ru);
  system("sync");
  Result r;
  r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  r.cpu = static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
          static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
  r.rss_mib = ru.ru_maxrss / 1024;
  r.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  return r;
}

static double median(std::vector<double> v)
{
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

int main(int argc, char** argv)
{
  if (argc < 2)
  {
    fprintf(stderr, "usage: bench_mtf DIR [FILES [BIG_FILES [BIG_MIB [ROUNDS]]]]\n");
    return 2;
  }
  g_dir = argv[1];
  int files = argc > 2 ? atoi(argv[2]) : 20000;
  int big = argc > 3 ? atoi(argv[3]) : 3;
  int big_mib = argc > 4 ? atoi(argv[4]) : 100;
  int rounds = argc > 5 ? atoi(argv[5]) : 1;
  ACE_LOG_MSG->priority_mask(LM_ERROR | LM_EMERGENCY, ACE_Log_Msg::PROCESS);
  make_tree(files, big, big_mib);
  printf("tree: %d files + %d x %d MiB = %.0f MiB, %d round(s)\n\n", files, big, big_mib, g_mib, rounds);
  std::string d = "'" + g_dir + "'";
  struct Step
  {
    const char* name;
    int tar;  // index of the tar step this one is compared with
    std::function<void()> body;
  };
  std::vector<Step> steps = {
    {"tar -cf", 0, [&] { _exit(system(("tar -cf " + d + "/t.tar -C " + d + "/tree .").c_str()) ? 1 : 0); }},
    {"MTF backup, 1 channel", 0, [] { backup(1); }},
    {"MTF backup, 4 channels", 0, [] { backup(4); }},
    {"tar -xf", 3,
     [&] { _exit(system(("mkdir -p " + d + "/tx && tar -xf " + d + "/t.tar -C " + d + "/tx").c_str()) ? 1 : 0); }},
    {"MTF restore, 1 worker", 3, [] { restore(1); }},
    {"MTF restore, 4 workers", 3, [] { restore(4); }},
  };
  // Per step: seconds, ratio of wall time to its tar step of the same round, CPU
  // seconds, CPU ratio; the steps of a round run back to back.
  std::vector<std::vector<double>> seconds(steps.size()), ratio(steps.size()), cpu(steps.size()),
    cpu_ratio(steps.size());
  std::vector<long> rss(steps.size(), 0);
  std::vector<bool> ok(steps.size(), true);
  printf("| round | step | seconds | ratio to tar | CPU seconds | CPU ratio to tar |\n|---|---|---|---|---|---|\n");
  // The steps of a round run as listed below, with untimed work between them:
  // - what a restore-like step wrote is removed after it, so the page cache holds
  //   about the same (the tree and at most four copies) when each step runs;
  // - every restore-like step, tar -xf included, runs right after a tree of the
  //   same files was removed: ext4 searches past recently freed inodes when it
  //   creates files, which otherwise only the MTF restores would pay for.
  struct Order
  {
    size_t step;
    std::string before;
    std::string after;
  };
  std::vector<Order> order = {
    {0, "", ""},
    {1, "", ""},
    {2, "", ""},
    {3, "mkdir -p " + d + "/tw && tar -xf " + d + "/t.tar -C " + d + "/tw && rm -rf " + d + "/tw",
     "rm -rf " + d + "/tx " + d + "/t.tar"},
    {4, "", "rm -rf " + d + "/out1 " + d + "/pool/h/c1"},
    {5, "", "rm -rf " + d + "/out4 " + d + "/pool/h/c4"}};
  for (int round = 0; round < rounds; ++round)
  {
    std::vector<Result> results(steps.size());
    for (const Order& o : order)
    {
      size_t i = o.step;
      if (!o.before.empty())
        system(o.before.c_str());
      Result r = run(steps[i].body);
      results[i] = r;
      // Backups are compared with tar -cf, restores with tar -xf of the same round.
      size_t t = static_cast<size_t>(steps[i].tar);
      const Result& tar = results[t];
      seconds[i].push_back(r.seconds);
      ratio[i].push_back(tar.seconds / r.seconds);
      cpu[i].push_back(r.cpu);
      cpu_ratio[i].push_back(r.cpu > 0 ? tar.cpu / r.cpu : 0);
      rss[i] = std::max(rss[i], r.rss_mib);
      ok[i] = ok[i] && r.ok;
      printf("| %d | %s | %.1f | %.2f | %.2f | %.2f |%s\n", round + 1, steps[i].name, r.seconds, ratio[i].back(), r.cpu,
             cpu_ratio[i].back(), r.ok ? "" : " FAILED");
      fflush(stdout);
      if (!o.after.empty())
        system(o.after.c_str());
    }
  }
  printf(
    "\nMedians over %d round(s):\n\n| step | seconds | MiB/s | ratio to tar | CPU seconds | CPU ratio to tar "
    "| peak RSS MiB |\n|---|---|---|---|---|---|---|\n",
    rounds);
  for (size_t i = 0; i < steps.size(); ++i)
    printf("| %s | %.1f | %.1f | %.2f | %.2f | %.2f | %ld |%s\n", steps[i].name, median(seconds[i]),
           g_mib / median(seconds[i]), median(ratio[i]), median(cpu[i]), median(cpu_ratio[i]), rss[i],
           ok[i] ? "" : " FAILED");
  fflush(stdout);
  system(("rm -rf " + d).c_str());
  return 0;
}
