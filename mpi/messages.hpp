// Messages between the processes that keep a mesh together.
#pragma once

#include <mpi.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "velmar_2D/mesh.hpp"

namespace velmar_2d {

/// What all processes throw together. Any other exception between two messages concerns one process
/// alone, while the others wait for it.
class FaultOfAll : public Error {
 public:
  using Error::Error;
};

/// Time of the processor that this thread has taken.
double processor_seconds();

/// A communicator of our own, so that no message meets those of the caller.
class Messages {
 public:
  explicit Messages(MPI_Comm communicator);
  Messages(const Messages&) = delete;
  Messages& operator=(const Messages&) = delete;
  ~Messages();

  MPI_Comm communicator() const { return communicator_; }
  int rank() const { return rank_; }
  int nb_processes() const { return nb_processes_; }

  /// Those that exchange() talks to. Collective in so far as both of two must know each other.
  void set_neighbours(std::vector<int> ranks) { neighbours_ = std::move(ranks); }
  const std::vector<int>& neighbours() const { return neighbours_; }

  /// Those with a message to one of us or from one of us, and no others, in order.
  std::vector<int> partners(const std::vector<char>& sends_to) const;
  /// One message to each neighbour and one from each, in their order.
  template <typename T>
  std::vector<std::vector<T>> exchange(const std::vector<std::vector<T>>& out) const {
    return exchange_with(neighbours_, out);
  }
  /// The same where both of two know whether there is anything to send: nothing is sent where there
  /// is not.
  template <typename T>
  std::vector<std::vector<T>> exchange(const std::vector<std::vector<T>>& out,
                                       const std::vector<char>& comes) const {
    return exchange_with(neighbours_, out, &comes);
  }
  /// One message to each of these processes and one from each, in their order. Collective in so far
  /// as both of two must name each other.
  ///
  /// @param comes  those that send something, where that is known: empty messages are not sent
  template <typename T>
  std::vector<std::vector<T>> exchange_with(const std::vector<int>& ranks,
                                            const std::vector<std::vector<T>>& out,
                                            const std::vector<char>* comes = nullptr) const {
    std::vector<std::vector<T>> in(ranks.size());
    send_and_receive(
        ranks, sizeof(T),
        [&](std::size_t i) {
          return std::pair<const void*, std::size_t>(out[i].data(), out[i].size());
        },
        [&](std::size_t i, std::size_t n) {
          in[i].resize(n);
          return static_cast<void*>(in[i].data());
        },
        comes);
    return in;
  }

  /// Runs what all processes run together. Where it is left by a fault that the others do not know
  /// of, such as exhausted memory while a message arrives, all processes end.
  /// Throws Error at once where an earlier one has failed.
  template <typename Operation>
  auto collective(const Operation& operation) {
    require_agreement();
    try {
      return operation();
    } catch (const FaultOfAll&) {
      is_broken_ = true;
      throw;
    } catch (...) {
      note_fault();
      end_all();
    }
  }

  /// Whether an earlier collective() has failed.
  bool is_broken() const { return is_broken_; }
  /// Throws Error where it has.
  void require_agreement() const {
    if (is_broken_) refuse_broken();
  }

  /// Since they were made: time of the processor in messages, and bytes sent to neighbours.
  double seconds() const { return seconds_; }
  std::int64_t nb_bytes() const { return nb_bytes_; }

  std::int64_t sum(std::int64_t number) const;
  double largest(double number) const;
  std::vector<std::int64_t> sum(std::vector<std::int64_t> numbers) const;
  std::int64_t largest(std::int64_t number) const;
  template <typename T>
  std::vector<T> gather_from_all(const T& own) const {
    std::vector<T> all(static_cast<std::size_t>(nb_processes_));
    MPI_Allgather(&own, sizeof(T), MPI_BYTE, all.data(), sizeof(T), MPI_BYTE, communicator_);
    return all;
  }

  /// A step that concerns this process alone. What it throws is kept until all processes meet in
  /// together(); until then later steps are left out.
  template <typename Step>
  void alone(const Step& step) {
    if (has_fault_) return;
    try {
      step();
    } catch (...) {
      note_fault();
    }
  }
  /// All processes meet: the sum of their numbers, or an Error on all where one has a fault.
  std::int64_t together(std::int64_t number = 0);
  /// The same: flags that some process has set, at most 62.
  std::uint64_t any(std::uint64_t flags);
  /// The same: the numbers of all, none of them negative or above 2^62.
  std::vector<std::int64_t> gather_together(std::int64_t number);

 private:
  using Outgoing = std::function<std::pair<const void*, std::size_t>(std::size_t i)>;
  using Incoming = std::function<void*(std::size_t i, std::size_t n)>;
  void send_and_receive(const std::vector<int>& ranks, std::size_t item, const Outgoing& out,
                        const Incoming& in, const std::vector<char>* comes) const;
  [[noreturn]] void throw_fault();
  void note_fault();
  [[noreturn]] void end_all() const;
  [[noreturn]] static void refuse_broken();

  MPI_Comm communicator_ = MPI_COMM_NULL;
  int rank_ = 0, nb_processes_ = 1;
  std::vector<int> neighbours_;
  mutable double seconds_ = 0.0;
  mutable std::int64_t nb_bytes_ = 0;
  bool has_fault_ = false, is_broken_ = false;
  std::string fault_;
};

}  // namespace velmar_2d
