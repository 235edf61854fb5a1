// One file for each process, and one that names them.
#include <filesystem>
#include <unordered_map>

#include "io/vtu_part.hpp"
#include "velmar_2D/velmar_2D_mpi_io.hpp"

namespace velmar_2d::io {

namespace {

namespace fs = std::filesystem;

/// On all processes the text of the first one that has any.
std::string first_fault(const Partition& part, std::string fault) {
  const int own = fault.empty() ? part.nb_processes() : part.rank();
  int first = 0;
  MPI_Allreduce(&own, &first, 1, MPI_INT, MPI_MIN, part.communicator());
  if (first == part.nb_processes()) return {};
  int length = static_cast<int>(fault.size());
  MPI_Bcast(&length, 1, MPI_INT, first, part.communicator());
  fault.resize(static_cast<std::size_t>(length));
  MPI_Bcast(fault.data(), length, MPI_CHAR, first, part.communicator());
  return fault;
}

/// What a step that concerns this process alone returns or throws.
template <typename Step>
std::string fault_of(const std::string& path, const Step& step) {
  try {
    return step();
  } catch (const std::bad_alloc&) {
    return path + ": memory is exhausted";
  } catch (const std::exception& fault) {
    return path + ": " + fault.what();
  }
}

/// Points that several processes write shall have the same values in all files. What a process
/// finds itself at a ghost may be something else: it does not know all around it.
class SharedValues {
 public:
  explicit SharedValues(Partition& part) {
    part.exchange();
    rows_.resize(width * (part.owned().size() + part.ghosts().size()));
    double* row = rows_.data();
    for (const Cell* c : part.owned()) {
      *row++ = c->grad_data;
      *row++ = c->grad2_data;
      *row++ = c->level;
      *row++ = area_of(part.mesh(), *c);
    }
    part.exchange(rows_, width);
    for (Cell* c : part.ghosts()) {
      row_of_[c] = row;
      c->grad_data = row[0];
      c->grad2_data = row[1];
      row += width;
    }
  }
  std::int32_t level(const Cell& ghost) const {
    return static_cast<std::int32_t>(row_of_.at(&ghost)[2]);
  }
  double area(const Cell& ghost) const { return row_of_.at(&ghost)[3]; }

 private:
  static constexpr int width = 4;
  std::vector<double> rows_;
  std::unordered_map<const Cell*, const double*> row_of_;
};

}  // namespace

std::string write_pvtu(Partition& part, const std::string& path, const VtuOptions& options) try {
  const SharedValues shared(part);
  const std::string name = fs::path(path).stem().string();
  const fs::path folder = fs::path(path).replace_extension();
  const auto file_of = [&](int rank) { return name + "_" + std::to_string(rank) + ".vtu"; };
  std::string fault;
  if (part.rank() == 0) {
    fault = fault_of(path, [&]() -> std::string {
      if (fs::path(path).extension() != ".pvtu") return path + ": the name must end in .pvtu";
      std::error_code why;
      fs::create_directories(folder, why);
      return why ? folder.string() + ": " + why.message() : std::string();
    });
  }
  fault = first_fault(part, fault);
  if (!fault.empty()) return fault;

  fault = fault_of(path, [&] {
    const VtuPart own{[&](const Cell& c) { return part.owns(c); },
                      [&](const Cell& c) { return part.global_number(c); },
                      [&](const Cell& c) { return shared.level(c); },
                      [&](const Cell& c) { return shared.area(c); }};
    return write_vtu_part(part.mesh(), (folder / file_of(part.rank())).string(), own, options);
  });
  fault = first_fault(part, fault);
  if (!fault.empty()) return fault;

  if (part.rank() == 0) {
    fault = fault_of(path, [&] {
      std::vector<std::string> files;
      files.reserve(static_cast<std::size_t>(part.nb_processes()));
      for (int rank = 0; rank < part.nb_processes(); ++rank) {
        files.push_back(name + "/" + file_of(rank));
      }
      return write_pvtu_file(part.mesh(), path, files, options);
    });
  }
  return first_fault(part, fault);
} catch (const Error& fault) {  // of all processes
  return path + ": " + fault.what();
}

}  // namespace velmar_2d::io
