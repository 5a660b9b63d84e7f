#pragma once

#include <sys/types.h>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Measuring on a machine that others use as well: every way of doing a thing has a process of its own, and
/// these take turns after a few times each, so that what disturbs one disturbs all.
namespace bench {

/// Nanoseconds of each time that something was done.
using Times = std::vector<double>;

struct Way {
  std::string name;
  std::function<Times()> turn;  ///< called again and again in the way's own process
};

/// A process that does a thing in one way when it is asked to. It has so much memory of its own, in pages of
/// 4 KiB, that a fork would have to copy the page tables of.
class Worker {
 public:
  Worker(const Way& way, std::size_t mebibytes);
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  /// One turn; ends this program when it fails.
  Times turn() const;

 private:
  int orders_ = -1, answers_ = -1;
  pid_t pid_ = -1;
};

/// What was measured of one way.
struct Measured {
  std::string name;
  Times times;

  /// The smallest at 0, the median at 0.5.
  double quantile(double part) const;
};

/// Lets the workers take turns, in an order that changes with every round, and adds what they measured.
void takeTurns(const std::vector<const Worker*>& workers, int rounds, const std::vector<Measured*>& measured);
/// The same with a worker for each way, made for this.
std::vector<Measured> measure(const std::vector<Way>& ways, std::size_t mebibytes, int rounds);

void printHead(const std::string& title, const std::string& base);
/// A line of the table: the way's times, and its ratios to the base, each of medians, lower quartiles and
/// minima: on a busy machine the last two tell more.
void printLine(const Measured& way, const Measured& base, const std::string& goal = "");

double now();

}  // namespace bench
