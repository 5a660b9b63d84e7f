#include "proc/Records.h"

#include <atomic>
#include <iterator>
#include <limits>
#include <new>

#include "kespal/thread/LockGuard.h"

namespace kes::proc {

namespace {
/// Of all collectors: a child's number means nothing to another one.
constinit std::atomic<std::uint64_t> registrations{0};
}  // namespace

void Records::reserve() {
  if (!spare_.empty()) return;
  Map one;
  one.emplace();
  spare_ = one.extract(one.begin());
}

std::uint64_t Records::add(pid_t pid, Child* child, sys::Descriptor watch) {
  reserve();
  // Also one without a child, whose waiters will find this one.
  if (const auto last = find(pid, latest); last != records_.end() && !last->second.ended) erase(last);
  const std::uint64_t number = ++registrations;
  Map::node_type node = std::move(spare_);
  node.key() = {pid, number};
  node.mapped() = Record{.child = child, .watch = std::move(watch)};
  records_.insert(records_.end(), std::move(node));
  ++running_;
  try {
    reserve();
  } catch (const std::bad_alloc&) {  // the next one will have to, before its fork
  }
  return number;
}

bool Records::runs(const Map::value_type& record) noexcept {
  return record.first.second != latest && !record.second.ended && !record.second.lost;
}

Records::Map::iterator Records::find(pid_t pid, std::uint64_t number) {
  if (number != latest) return records_.find({pid, number});
  const auto next = records_.upper_bound({pid, std::numeric_limits<std::uint64_t>::max()});
  if (next == records_.begin() || std::prev(next)->first.first != pid) return records_.end();
  return std::prev(next);
}

bool Records::runs(pid_t pid, std::uint64_t number) {
  const auto record = find(pid, number);
  return record != records_.end() && runs(*record);
}

Records::End Records::end(pid_t pid, int status) {
  const auto found = find(pid, latest);
  if (found == records_.end() || !runs(*found)) return {};
  const End end{found->first.second, found->second.child != nullptr};
  if (found->second.abandoned) {
    erase(found);
    return end;
  }
  found->second.status = status;
  found->second.ended = true;
  noteGone(found->second);
  if (!end.isToBeTold) wake(found->second);
  return end;
}

bool Records::fetch(pid_t pid, std::uint64_t number, int& status) {
  const auto record = find(pid, number);
  if (record == records_.end() || !record->second.ended) return false;
  status = record->second.status;
  erase(record);
  return true;
}

void Records::forget(pid_t pid, std::uint64_t number) {
  const auto record = records_.find({pid, number});
  if (record == records_.end()) return;
  record->second.child = nullptr;
  record->second.abandoned = true;
  if (!runs(*record)) erase(record);
}

Child* Records::takeChild(pid_t pid) {
  const auto record = find(pid, latest);
  return record != records_.end() ? std::exchange(record->second.child, nullptr) : nullptr;
}

Child* Records::takeRunningChild() {
  for (auto& [key, record] : records_) {
    if (!record.ended && record.child != nullptr) return std::exchange(record.child, nullptr);
  }
  return nullptr;
}

bool Records::takeLost(bool (*isLost)(pid_t), Child*& child) {
  for (auto record = records_.begin(); record != records_.end(); ++record) {
    if (!runs(*record) || !isLost(record->first.first)) continue;
    child = std::exchange(record->second.child, nullptr);
    record->second.lost = true;
    noteGone(record->second);
    wake(record->second);
    if (record->second.abandoned) erase(record);
    return true;
  }
  return false;
}

void Records::wake(pid_t pid, std::uint64_t number) {
  const auto record = records_.find({pid, number});
  if (record != records_.end()) wake(record->second);
}

void Records::wakeAll() {
  for (auto record = records_.begin(); record != records_.end();) {
    wake(record->second);
    record = record->first.second == latest ? records_.erase(record) : std::next(record);
  }
}

void Records::noteGone(Record& record) noexcept {
  record.watch.reset();
  --running_;
}

/// What a waiter stands on may be gone when he wakes: he is taken off the list at once.
void Records::wake(Record& record) {
  while (Waiter* const waiter = record.waiters) {
    record.waiters = waiter->next_;
    waiter->record_ = nullptr;
    if (record.ended) waiter->status_ = record.status;
    waiter->arrived_.signal();
  }
}

/// The memory stays for the next child.
void Records::erase(Map::iterator record) {
  wake(record->second);
  if (runs(*record)) noteGone(record->second);
  spare_ = records_.extract(record);
}

Waiter::Waiter(Records& records, thread::Lock& lock, pid_t pid, std::uint64_t number)
    : arrived_(lock), records_(records), pid_(pid) {
  auto found = records.find(pid, number);
  if (found == records.records_.end()) found = records.records_.try_emplace({pid, Records::latest}).first;
  number_ = found->first.second;
  record_ = &found->second;
  next_ = std::exchange(record_->waiters, this);
}

Waiter::~Waiter() { unlink(); }

void Waiter::wait() {
  waitOrLeave([this] { arrived_.wait(); });
}

/// Of a thread that is cancelled and not unwound: the wait has given the lock back.
void Waiter::leave() {
  const thread::LockGuardT<thread::Condition> guard(arrived_);
  unlink();
}

void Waiter::unlink() {
  if (record_ == nullptr) return;
  Waiter** place = &record_->waiters;
  while (*place != this) place = &(*place)->next_;
  *place = next_;
  if (number_ == Records::latest && record_->waiters == nullptr)
    records_.erase(records_.find(pid_, Records::latest));
  record_ = nullptr;
}

}  // namespace kes::proc
