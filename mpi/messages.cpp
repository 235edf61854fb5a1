#include "messages.hpp"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <new>

namespace velmar_2d {

namespace {
constexpr int tag = 1;

/// Adds the time of a scope.
class Timed {
 public:
  explicit Timed(double& seconds) : seconds_(seconds), begin_(processor_seconds()) {}
  Timed(const Timed&) = delete;
  Timed& operator=(const Timed&) = delete;
  ~Timed() { seconds_ += processor_seconds() - begin_; }

 private:
  double& seconds_;
  double begin_;
};

}  // namespace

double processor_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

Messages::Messages(MPI_Comm communicator) {
  int is_ready = 0;
  MPI_Initialized(&is_ready);
  if (is_ready == 0) throw Error("(velmar_2D/Partition:) ERROR: MPI_Init has not been called");
  if (communicator == MPI_COMM_NULL) {
    throw Error("(velmar_2D/Partition:) ERROR: there is no communicator");
  }
  MPI_Comm_dup(communicator, &communicator_);
  MPI_Comm_rank(communicator_, &rank_);
  MPI_Comm_size(communicator_, &nb_processes_);
}

Messages::~Messages() {
  int is_over = 0;
  MPI_Finalized(&is_over);
  if (is_over == 0) MPI_Comm_free(&communicator_);
}

void Messages::send_and_receive(const std::vector<int>& ranks, std::size_t item,
                                const Outgoing& out, const Incoming& in,
                                const std::vector<char>* comes) const {
  const Timed timed(seconds_);
  MPI_Datatype type = MPI_DATATYPE_NULL;
  MPI_Type_contiguous(static_cast<int>(item), MPI_BYTE, &type);
  MPI_Type_commit(&type);
  std::vector<MPI_Request> sent(ranks.size(), MPI_REQUEST_NULL);
  for (std::size_t i = 0; i < ranks.size(); ++i) {
    const auto [data, n] = out(i);
    if (comes != nullptr && n == 0) continue;
    nb_bytes_ += static_cast<std::int64_t>(n * item);
    MPI_Isend(data, static_cast<int>(n), type, ranks[i], tag, communicator_, &sent[i]);
  }
  for (std::size_t i = 0; i < ranks.size(); ++i) {
    if (comes != nullptr && (*comes)[i] == 0) continue;
    MPI_Message message = MPI_MESSAGE_NULL;
    MPI_Status status;
    MPI_Mprobe(ranks[i], tag, communicator_, &message, &status);
    int n = 0;
    MPI_Get_count(&status, type, &n);
    MPI_Mrecv(in(i, static_cast<std::size_t>(n)), n, type, &message, MPI_STATUS_IGNORE);
  }
  MPI_Waitall(static_cast<int>(sent.size()), sent.data(), MPI_STATUSES_IGNORE);
  MPI_Type_free(&type);
}

std::int64_t Messages::sum(std::int64_t number) const {
  std::int64_t all = 0;
  MPI_Allreduce(&number, &all, 1, MPI_INT64_T, MPI_SUM, communicator_);
  return all;
}

std::vector<std::int64_t> Messages::sum(std::vector<std::int64_t> numbers) const {
  MPI_Allreduce(MPI_IN_PLACE, numbers.data(), static_cast<int>(numbers.size()), MPI_INT64_T,
                MPI_SUM, communicator_);
  return numbers;
}

std::vector<int> Messages::partners(const std::vector<char>& sends_to) const {
  std::vector<char> receives_from(sends_to.size());
  MPI_Alltoall(sends_to.data(), 1, MPI_CHAR, receives_from.data(), 1, MPI_CHAR, communicator_);
  std::vector<int> ranks;
  for (int other = 0; other < nb_processes_; ++other) {
    const auto i = static_cast<std::size_t>(other);
    if (sends_to[i] != 0 || receives_from[i] != 0) ranks.push_back(other);
  }
  return ranks;
}

std::int64_t Messages::largest(std::int64_t number) const {
  std::int64_t all = 0;
  MPI_Allreduce(&number, &all, 1, MPI_INT64_T, MPI_MAX, communicator_);
  return all;
}

double Messages::largest(double number) const {
  double all = 0.0;
  MPI_Allreduce(&number, &all, 1, MPI_DOUBLE, MPI_MAX, communicator_);
  return all;
}

void Messages::note_fault() {
  has_fault_ = true;
  try {
    throw;
  } catch (const std::bad_alloc&) {
    fault_ = "memory is exhausted";
  } catch (const std::exception& fault) {
    fault_ = fault.what();
  } catch (...) {
    fault_ = "an exception that is no std::exception";
  }
}

std::int64_t Messages::together(std::int64_t number) {
  const Timed timed(seconds_);
  std::array<std::int64_t, 2> own = {number, has_fault_ ? 1 : 0}, all{};
  MPI_Allreduce(own.data(), all.data(), 2, MPI_INT64_T, MPI_SUM, communicator_);
  if (all[1] != 0) throw_fault();
  return all[0];
}

std::uint64_t Messages::any(std::uint64_t flags) {
  const Timed timed(seconds_);
  constexpr std::uint64_t fault = std::uint64_t{1} << 63;
  std::uint64_t all = 0;
  if (has_fault_) flags |= fault;
  MPI_Allreduce(&flags, &all, 1, MPI_UINT64_T, MPI_BOR, communicator_);
  if ((all & fault) != 0) throw_fault();
  return all;
}

std::vector<std::int64_t> Messages::gather_together(std::int64_t number) {
  const Timed timed(seconds_);
  std::vector<std::int64_t> all = gather_from_all(has_fault_ ? std::int64_t{-1} : number);
  for (const std::int64_t of : all) {
    if (of < 0) throw_fault();
  }
  return all;
}

/// Tells of the fault of the first process that has one.
void Messages::throw_fault() {
  int first = has_fault_ ? rank_ : nb_processes_, culprit = 0;
  MPI_Allreduce(&first, &culprit, 1, MPI_INT, MPI_MIN, communicator_);
  int length = static_cast<int>(fault_.size());
  MPI_Bcast(&length, 1, MPI_INT, culprit, communicator_);
  std::string text = std::exchange(fault_, {});
  has_fault_ = false;
  text.resize(static_cast<std::size_t>(length));
  MPI_Bcast(text.data(), length, MPI_CHAR, culprit, communicator_);
  throw FaultOfAll("(velmar_2D/Partition:) ERROR on process " + std::to_string(culprit) + " of " +
                   std::to_string(nb_processes_) + ": " + text);
}

void Messages::end_all() const {
  std::fprintf(stderr, "(velmar_2D/Partition:) ERROR on process %d of %d: %s\n", rank_,
               nb_processes_, fault_.c_str());
  std::fflush(stderr);
  MPI_Abort(communicator_, EXIT_FAILURE);
  std::abort();
}

void Messages::refuse_broken() {
  throw Error(
      "(velmar_2D/Partition:) ERROR: an earlier operation has failed, and the meshes of the "
      "processes do not agree any more; make another Partition");
}

}  // namespace velmar_2d
