#include "StartPeers.h"

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>

#ifdef KES_BENCH_BOOST
#include <boost/process/child.hpp>
#endif
#ifdef KES_BENCH_POCO
#include <Poco/Process.h>
#endif
#ifdef KES_BENCH_QT
#include <QCoreApplication>
#include <QProcess>
#endif
#ifdef KES_BENCH_UV
#include <uv.h>
#endif
#ifdef KES_BENCH_APR
#include <apr_general.h>
#include <apr_thread_proc.h>
#endif
#ifdef KES_BENCH_NSPR
#include <nspr/nspr.h>
#endif

namespace {

using bench::Times;
using bench::Way;

/// A way that does this so many times in a turn.
Way each(const char* name, int times, const std::function<bool()>& startAndWait) {
  return {name, [times, startAndWait] {
            Times taken;
            for (int i = 0; i < times; ++i) {
              const double start = bench::now();
              if (!startAndWait()) std::abort();
              taken.push_back(bench::now() - start);
            }
            return taken;
          }};
}

#ifdef KES_BENCH_UV
bool uvStartAndWait(const char* program) {
  static uv_loop_t* const loop = uv_default_loop();
  char* arguments[] = {const_cast<char*>(program), nullptr};
  uv_process_t process;
  uv_process_options_t options{};
  options.file = program;
  options.args = arguments;
  options.exit_cb = [](uv_process_t* ended, std::int64_t, int) {
    uv_close(reinterpret_cast<uv_handle_t*>(ended), nullptr);
  };
  return uv_spawn(loop, &process, &options) == 0 && uv_run(loop, UV_RUN_DEFAULT) == 0;
}
#endif

#ifdef KES_BENCH_QT
bool qtStartAndWait(const char* program) {
  static int count = 1;
  static char name[] = "bench";
  static char* arguments[] = {name, nullptr};
  static const auto* const application = new QCoreApplication(count, arguments);
  QProcess process;
  process.start(program, QStringList());
  return application != nullptr && process.waitForFinished(-1);
}
#endif

#ifdef KES_BENCH_APR
bool aprStartAndWait(const char* program) {
  static apr_pool_t* const whole = [] {
    apr_pool_t* made = nullptr;
    apr_initialize();
    apr_pool_create(&made, nullptr);
    return made;
  }();
  apr_pool_t* pool = nullptr;
  apr_procattr_t* attributes = nullptr;
  apr_pool_create(&pool, whole);
  apr_procattr_create(&attributes, pool);
  apr_procattr_cmdtype_set(attributes, APR_PROGRAM);
  apr_proc_t process;
  const char* arguments[] = {program, nullptr};
  const bool started = apr_proc_create(&process, program, arguments, nullptr, attributes, pool) == 0;
  int code = -1;
  apr_exit_why_e why{};
  if (started) apr_proc_wait(&process, &code, &why, APR_WAIT);
  apr_pool_destroy(pool);
  return code == 0;
}
#endif

#ifdef KES_BENCH_NSPR
bool nsprStartAndWait(const char* program) {
  char* arguments[] = {const_cast<char*>(program), nullptr};
  PRProcess* const process = PR_CreateProcess(program, arguments, nullptr, nullptr);
  PRInt32 code = -1;
  return process != nullptr && PR_WaitProcess(process, &code) == PR_SUCCESS && code == 0;
}
#endif

}  // namespace

std::vector<Way> startPeers([[maybe_unused]] const char* program, [[maybe_unused]] int times) {
  std::vector<Way> ways;
#ifdef KES_BENCH_BOOST
  ways.push_back(each("boost::process::child", times, [program] {
    boost::process::child child(program);
    child.wait();
    return child.exit_code() == 0;
  }));
#endif
#ifdef KES_BENCH_POCO
  ways.push_back(each("Poco::Process::launch", times,
                      [program] { return Poco::Process::launch(program, {}).wait() == 0; }));
#endif
#ifdef KES_BENCH_UV
  ways.push_back(each("libuv uv_spawn", times, [program] { return uvStartAndWait(program); }));
#endif
#ifdef KES_BENCH_QT
  ways.push_back(each("QProcess", times, [program] { return qtStartAndWait(program); }));
#endif
#ifdef KES_BENCH_APR
  ways.push_back(each("APR apr_proc_create", times, [program] { return aprStartAndWait(program); }));
#endif
#ifdef KES_BENCH_NSPR
  ways.push_back(each("NSPR PR_CreateProcess", times, [program] { return nsprStartAndWait(program); }));
#endif
  return ways;
}
