#include "bench/stores/processes.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "bench/stores/measuring.h"
#include "bench/stores/phases.h"
#include "common/holders.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

enum class Mix { kReading, kMixing };

constexpr std::uint32_t kOneRewriteIn = 10;
constexpr std::uint32_t kWarmUp = 10;  // one more for every so many operations, before measuring

// What one of the processes does.
struct Task {
  Mix mix;
  std::uint32_t process;  // from 0
  std::uint32_t processes;
  std::uint32_t operations;

  [[nodiscard]] std::uint64_t seed() const { return (processes << 8) + process + (1U << 16); }
};

// Calls `read(number)` or `rewrite(number)` for each operation of the task. A process rewrites
// records of its own only, so that what the store holds at the end is known.
template <typename Read, typename Rewrite>
void operate(const Task& task, std::uint32_t records, Read read, Rewrite rewrite) {
  const std::uint32_t own = std::max<std::uint32_t>(records / task.processes, 1);
  Sequence sequence(task.seed());
  for (std::uint32_t i = 0; i < task.operations; ++i) {
    if (task.mix == Mix::kMixing && sequence.below(kOneRewriteIn) == 0) {
      rewrite(sequence.below(own) * task.processes + task.process);
    } else {
      read(sequence.below(records));
    }
  }
}

struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
      throw std::system_error(errno, std::generic_category(), "pipe");
    }
    reader = common::FileHold{ends[0]};
    writer = common::FileHold{ends[1]};
  }

  common::FileHold reader;
  common::FileHold writer;
};

// Throws when the other side has ended.
template <typename Value>
Value receive(const Pipe& pipe) {
  Value value{};
  if (read(pipe.reader.get(), &value, sizeof value) != ssize_t{sizeof value}) {
    throw std::runtime_error("a process ended early");
  }
  return value;
}

template <typename Value>
void send(const Pipe& pipe, const Value& value) {
  if (write(pipe.writer.get(), &value, sizeof value) != ssize_t{sizeof value}) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
}

// Between the processes and the one that measures them.
struct Channels {
  Pipe ready;   // from each process: it has opened the store
  Pipe start;   // to each process: all have
  Pipe result;  // from each process: its cost, with `wall` the time of its end
};

void work(Store& store, const fs::path& folder, Model& model, const Task& task,
          Channels& channels) {
  channels.start.writer = common::FileHold{};  // so that reading ends when the parent does
  store.open(folder, Start::kExisting);
  Sequence warm_up(task.seed());
  for (std::uint32_t i = 0; i < task.operations / kWarmUp; ++i) {
    demand(store, warm_up.below(model.records()));
  }
  send(channels.ready, true);
  receive<bool>(channels.start);

  Record record;
  const Stopwatch stopwatch;
  operate(
      task, model.records(), [&](std::uint32_t number) { demand(store, number); },
      [&](std::uint32_t number) {
        model.next(number, record);
        store.rewrite(record);
      });
  Cost cost = stopwatch.cost();
  cost.wall = now();
  send(channels.result, cost);
  store.settle();
  store.close();
}

pid_t start_process(Store& store, const fs::path& folder, Model& model, const Task& task,
                    Channels& channels) {
  const pid_t child = fork();
  if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (child > 0) return child;
  try {
    work(store, folder, model, task, channels);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "process %u: %s\n", task.process, error.what());
    _exit(EXIT_FAILURE);
  }
  _exit(EXIT_SUCCESS);
}

void wait_for(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "waitpid");
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != EXIT_SUCCESS) {
    throw std::runtime_error("a process failed");
  }
}

Cost run_processes(Store& store, const fs::path& folder, Model& model,
                   const std::vector<Task>& tasks) {
  Channels channels;
  std::vector<pid_t> children;
  for (const Task& task : tasks) {
    children.push_back(start_process(store, folder, model, task, channels));
  }
  // From here on only the children can write: when one fails before it answers and the others
  // wait for the start, reading must not wait for ever.
  channels.ready.writer = common::FileHold{};
  channels.result.writer = common::FileHold{};
  for (std::size_t i = 0; i < tasks.size(); ++i) receive<bool>(channels.ready);
  const double start = now();
  for (std::size_t i = 0; i < tasks.size(); ++i) send(channels.start, true);
  Cost cost;
  for (std::size_t i = 0; i < tasks.size(); ++i) {
    const Cost one = receive<Cost>(channels.result);
    cost.cpu += one.cpu;
    cost.instructions += one.instructions;
    cost.wall = std::max(cost.wall, one.wall - start);
  }
  for (const pid_t child : children) wait_for(child);
  return cost;
}

std::vector<Task> tasks_for(Mix mix, std::uint32_t processes, std::uint32_t records) {
  const std::uint32_t operations = std::max<std::uint32_t>(records / 2, 1);
  std::vector<Task> tasks;
  for (std::uint32_t process = 0; process < processes; ++process) {
    tasks.push_back({mix, process, processes, operations});
  }
  return tasks;
}

}  // namespace

void run_together(Store& store, const std::string& name, const fs::path& folder, Model& model) {
  for (const Mix mix : {Mix::kReading, Mix::kMixing}) {
    for (const std::uint32_t processes : {1U, 2U, 4U}) {
      const std::vector<Task> tasks = tasks_for(mix, processes, model.records());
      const Cost cost = run_processes(store, folder, model, tasks);
      print_line(name, mix == Mix::kReading ? "readers" : "mixers", static_cast<int>(processes),
                 std::uint64_t{tasks.front().operations} * processes, cost);
      for (const Task& task : tasks) {
        operate(
            task, model.records(), [](std::uint32_t) {},
            [&](std::uint32_t number) { model.skip(number); });
      }
    }
  }
  store.open(folder, Start::kExisting);
  model.verify(store);
  store.settle();
  store.close();
}

}  // namespace bench
