#include "formats/hdf5/detail/Follow.hpp"

#include <algorithm>
#include <map>
#include <set>

#include "formats/hdf5/detail/Problems.hpp"
#include "formats/hdf5/detail/Reader.hpp"
#include "formats/hdf5/detail/Series.hpp"
#include "formats/hdf5/detail/Stored.hpp"

namespace Quaril::H5::detail {

namespace {

/// The series a bundle was loaded from, by journal.
class Followed : public Ostrak::Interface<Followed> {
 public:
  struct Series {
    JournalReader reader;
    std::shared_ptr<PartSource::Pool> pool;
  };
  std::map<std::string, Series> series;
};

}  // namespace

void recordFollowed(Bundle& bundle, const std::string& journal, const Journal& read,
                    std::shared_ptr<PartSource::Pool> pool) {
  auto followed = bundle.findInterface<Followed, Followed>();
  if (!followed) {
    followed = Ostrak::StrongPtr<Followed>(new Followed);
    bundle.addInterface(Ostrak::StrongPtr<Ostrak::InterfaceBase>(followed));
  }
  followed->series.insert_or_assign(
      journal, Followed::Series{JournalReader(journal, read), std::move(pool)});
}

SeriesUpdate refreshSeries(Bundle& bundle) {
  const auto followed = bundle.findInterface<Followed, Followed>();
  require(followed && !followed->series.empty(), "the bundle was loaded from no series");
  require(!bundle.getStorage(), "the bundle is bound to storage: it writes, and follows nothing");
  // Every journal is read, by a copy of its reader, before the bundle changes.
  struct Fresh {
    const std::string* journal;
    Followed::Series* series;
    JournalReader reader;
    Journal read;
  };
  std::vector<Fresh> fresh;
  for (auto& [journal, series] : followed->series) {
    JournalReader reader = series.reader;
    Journal read = reader.newRecords();
    fresh.push_back({&journal, &series, std::move(reader), std::move(read)});
  }
  SeriesUpdate update;
  update.closed = true;
  std::set<double> added, changed;
  for (Fresh& taken : fresh) {
    const std::string& journal = *taken.journal;
    const Journal& read = taken.read;
    taken.series->reader = std::move(taken.reader);
    update.closed = update.closed && read.closed;
    std::vector<Problem> damage;
    const std::vector<Part> parts = partsOf(journal, read, damage, taken.series->pool);
    for (const Part& part : parts) {
      for (double time : part.index.times) {
        const auto slice = bundle.getSlices().find(time);
        if (slice == bundle.getSlices().end() || added.count(time)) {
          added.insert(time);
          continue;
        }
        changed.insert(time);
        // The slice's pending loader runs before the new part's, which adds
        // to or replaces what it reads.
        if (slice->second && slice->second->hasPendingLoaders()) slice->second->accessSlice();
      }
    }
    if (!parts.empty() || !damage.empty()) {
      attachParts(bundle, parts, {}, recordLoaded(bundle, journal), damage);
    }
  }
  update.added.assign(added.begin(), added.end());
  update.changed.assign(changed.begin(), changed.end());
  return update;
}

}  // namespace Quaril::H5::detail
