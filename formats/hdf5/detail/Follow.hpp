#pragma once
// What a bundle loaded from a series keeps to take up later syncs: where it
// stopped reading the series' journal, and the pool its parts open through.

#include <memory>
#include <string>

#include "bundle/Bundle.hpp"
#include "formats/hdf5/Options.hpp"
#include "formats/hdf5/detail/Journal.hpp"
#include "formats/hdf5/detail/Source.hpp"

namespace Quaril::H5::detail {

/// Keeps on `bundle` that it was loaded from the series `journal`, read as
/// `read`, its parts opened through `pool`.
void recordFollowed(Bundle& bundle, const std::string& journal, const Journal& read,
                    std::shared_ptr<PartSource::Pool> pool);

/// Takes up the syncs of every series `bundle` was loaded from that came
/// after it last looked, and says what they added and changed. Throws
/// Failure when there is no such series, or one was started anew; the
/// bundle is then as it was.
SeriesUpdate refreshSeries(Bundle& bundle);

}  // namespace Quaril::H5::detail
