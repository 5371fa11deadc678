#pragma once
// The XDMF description of a bundle file or series: an XML document beside it
// through which visualisation programs read our data sets in place, as a
// time series.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "formats/hdf5/detail/Index.hpp"
#include "formats/hdf5/detail/Source.hpp"

namespace Quaril::H5::detail {

/// The descriptor of the bundle file or series `path`.
std::string descriptorOf(const std::string& path);
/// The last part of `path`, as a descriptor beside it names it.
std::string fileNameOf(const std::string& path);

/// A file of the format as a descriptor names it.
struct DescribedFile {
  /// The file's name relative to the descriptor's folder.
  std::string reference;
  /// Its index; must outlive the description.
  const Index* index = nullptr;
  /// Its structure texts, parsed, by row.
  std::function<std::shared_ptr<const nlohmann::json>(uint64_t row)> structure;
};

/// The descriptor of `path` written beside it: the file described as it is
/// (no room for later steps), replaced atomically. Throws Failure.
void writeFileDescriptor(const std::string& path);

/// `source`, named `reference` in the descriptor.
DescribedFile describedSource(const std::shared_ptr<Source>& source, std::string reference);
/// A file just written, from what the writer reported of it (`index` and
/// `structures` must outlive the result).
DescribedFile describedWrite(const Index& index, const std::vector<std::string>& structures,
                             std::string reference);

/// The XDMF 3 document for `files`, later files adding to and replacing what
/// earlier ones hold, as a reader applies them. One temporal collection per
/// grid name; what XDMF cannot say (refinement levels, element types without
/// an XDMF number type, other skeletons) is left out and named in a comment.
std::string describeXdmf(const std::vector<DescribedFile>& files);

/// The descriptor NAME.xmf of a file NAME that a save writes. It is made
/// beside the file first, so that a descriptor that cannot be written fails
/// the save before anything changed; written from what the writer reports;
/// and renamed right after the file (derived from it, it is not flushed on
/// its own). A new descriptor not renamed is removed when this goes.
class DescriptorBeside {
 public:
  /// Makes the new descriptor of `file`. Throws Failure.
  explicit DescriptorBeside(const std::string& file);
  ~DescriptorBeside();
  DescriptorBeside(const DescriptorBeside&) = delete;
  DescriptorBeside& operator=(const DescriptorBeside&) = delete;

  /// Writes the description of the file from its `index` and `structures`.
  void write(const Index& index, const std::vector<std::string>& structures);
  /// Renames the new descriptor over the old one. Throws Failure.
  void replace();

 private:
  std::string file_;
  std::string path_;
  std::string temporary_;
};

/// The descriptor NAME.xmf of the bound series NAME, kept up to date sync by
/// sync at a cost that does not grow with the series: after each grid's
/// steps it leaves room (a comment of spaces) into which the steps of a
/// later sync are written in place, one write per grid, and then the count
/// of parts described at its end. It is written anew, atomically, when a
/// sync adds a grid name, runs out of room or changes earlier steps, and
/// when it does not describe the series it is opened for (after a crash).
class SeriesDescriptor {
 public:
  /// Calls its argument with each part of the series in the journal's
  /// order, named relative to the descriptor's folder.
  using Parts = std::function<void(const std::function<void(const DescribedFile&)>&)>;

  /// The descriptor `path` of the series whose parts are named by `token`.
  SeriesDescriptor(std::string path, std::string token, Parts parts);

  /// Takes up the descriptor when it describes the parts with these indexes,
  /// and writes it anew otherwise. Throws Failure.
  void open(const std::vector<const Index*>& described);
  /// Adds `part`, the part written after those described. Throws Failure;
  /// the next call then writes the descriptor anew.
  void add(const DescribedFile& part);
  /// Writes the descriptor anew from all parts. Throws Failure.
  void rewrite();
  /// Whether the last change failed, so that it is to be written anew.
  bool stale() const noexcept { return stale_; }

 private:
  struct Room {
    uint64_t at;      ///< where the room's comment begins
    uint64_t spaces;  ///< the spaces in it
  };
  /// Reads the rooms and the count from the descriptor's text; false when it
  /// is not one of ours that describes `parts` parts.
  bool parse(const std::string& text, uint64_t parts);
  void addIn(const DescribedFile& part);
  /// Adds the grid names and times of `index`, a part described next.
  void learn(const Index& index);

  std::string path_;
  std::string token_;
  Parts parts_;
  bool stale_ = true;
  uint64_t described_ = 0;
  uint64_t countAt_ = 0;
  /// Grid names by the row of their collection (in the order in which they
  /// first occur), and the last time described of each.
  std::map<std::string, size_t> nameRows_;
  std::vector<double> lastTimes_;
  std::vector<Room> rooms_;  // by name row
};

}  // namespace Quaril::H5::detail
