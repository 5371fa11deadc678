#include "tools/Copy.hpp"

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <list>

#include "bundle/StorageTransformations.hpp"
#include "ostrak/StringList.hpp"

namespace Quaril::Tools {
namespace {

/// Saves only the time steps of a range, deflated at a given level.
class Selected : public H5::StorageOptions {
 public:
  explicit Selected(const std::optional<TimeRange>& times) : times_(times) {}
  bool isSaveableTime(double time) const override {
    return !times_ || (time >= times_->first && time <= times_->last);
  }

 private:
  std::optional<TimeRange> times_;
};

std::optional<double> parseTime(const std::string& text) {
  if (text.empty()) return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (errno == ERANGE || end != text.c_str() + text.size() || std::isnan(value))
    return std::nullopt;
  return value;
}

}  // namespace

H5::Outcome requireReadable(const std::vector<std::string>& files) {
  if (files.empty()) return {false, "no file given"};
  for (const std::string& file : files) {
    std::error_code error;
    if (!std::filesystem::exists(file, error)) return {false, file + ": no such file"};
    if (std::filesystem::is_directory(file, error)) return {false, file + ": a folder, not a file"};
    if (access(file.c_str(), R_OK) != 0) {
      return {false, file + ": cannot be read (" + std::strerror(errno) + ")"};
    }
  }
  return {true, ""};
}

H5::Outcome openFiles(BundlePtr& bundle, const std::vector<std::string>& files,
                      const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress) {
  H5::registerFormat();
  if (H5::Outcome readable = requireReadable(files); !readable) return readable;
  return H5::load(bundle, std::list<std::string>(files.begin(), files.end()), progress);
}

std::optional<Compression> parseCompression(const std::string& text, std::string& error) {
  error = "bad compression \"" + text +
          "\": expected zstd[:1-22], lz4, deflate[:1-9], none, or a deflate level 0 to 9";
  const size_t colon = text.find(':');
  const std::string name = text.substr(0, colon);
  int level = 0;
  if (colon != std::string::npos) {
    const std::string number = text.substr(colon + 1);
    size_t used = 0;
    try {
      level = std::stoi(number, &used);
    } catch (const std::exception&) {
      return std::nullopt;
    }
    if (used != number.size()) return std::nullopt;
  }
  Compression compression;
  if (name == "zstd" && (colon == std::string::npos || (level >= 1 && level <= 22))) {
    compression = {H5::Codec::Zstd, level};
  } else if (name == "lz4" && colon == std::string::npos) {
    compression = {H5::Codec::Lz4, 0};
  } else if (name == "deflate" && (colon == std::string::npos || (level >= 1 && level <= 9))) {
    compression = {H5::Codec::Deflate, colon == std::string::npos ? 6 : level};
  } else if (name == "none" && colon == std::string::npos) {
    compression = {};
  } else if (colon == std::string::npos && name.size() == 1 && name[0] >= '0' && name[0] <= '9') {
    if (name != "0") compression = {H5::Codec::Deflate, name[0] - '0'};
  } else {
    return std::nullopt;
  }
  error.clear();
  return compression;
}

std::optional<TimeRange> parseTimeRange(const std::string& text, std::string& error) {
  error = "bad time range \"" + text + "\": expected T0:T1, T0:, :T1 or T";
  const size_t colon = text.find(':');
  if (colon == std::string::npos) {
    const std::optional<double> time = parseTime(text);
    if (!time) return std::nullopt;
    error.clear();
    return TimeRange{*time, *time};
  }
  const std::string firstText = text.substr(0, colon), lastText = text.substr(colon + 1);
  const std::optional<double> first = parseTime(firstText), last = parseTime(lastText);
  if ((!first && !firstText.empty()) || (!last && !lastText.empty()) || (!first && !last)) {
    return std::nullopt;
  }
  TimeRange range;
  if (first) range.first = *first;
  if (last) range.last = *last;
  if (range.first > range.last) {
    error = "bad time range \"" + text + "\": it ends before it begins";
    return std::nullopt;
  }
  error.clear();
  return range;
}

H5::Outcome copyBundle(const CopyRequest& request,
                       const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress,
                       std::vector<H5::Problem>* unreadable) {
  if (request.output.empty()) return {false, "no output file given"};
  BundlePtr bundle;
  if (H5::Outcome opened = openFiles(bundle, request.inputs, progress); !opened) return opened;
  Ostrak::StrongPtr<Ostrak::StringList> names;
  if (!request.grids.empty()) {
    names = Ostrak::StrongPtr<Ostrak::StringList>(new Ostrak::StringList);
    for (const std::string& grid : request.grids) {
      if (!bundle->getGridList()->find(grid))
        return {false, "no grid \"" + grid + "\" in the input"};
      names->push_back(grid);
    }
  }
  Ostrak::StrongPtr<Selected> transformations(new Selected(request.times));
  transformations->setCompression(request.compression.codec, request.compression.level);
  transformations->setWriteXdmf(request.xdmf);
  transformations->setSkipDamaged(request.skipDamaged);
  if (request.times) {
    bool any = false;
    for (const auto& [time, slice] : bundle->getSlices())
      any = any || transformations->isSaveableTime(time);
    if (!any) return {false, "no time step in the range"};
  }
  const H5::Outcome saved = H5::save(*bundle, request.output, transformations, progress, names);
  if (unreadable) *unreadable = H5::problems(*bundle);
  return saved;
}

}  // namespace Quaril::Tools
