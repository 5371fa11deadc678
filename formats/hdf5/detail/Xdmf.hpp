#pragma once
// The XDMF description of a bundle file: an XML document beside it through
// which visualisation programs read our data sets in place, as a time series.

#include <string>

#include "formats/hdf5/detail/Reader.hpp"

namespace Quaril::H5::detail {

/// The XDMF 3 document for `source`, whose data sets it names as
/// `dataFile:/arrays/<e>.<n>`. One temporal collection per grid name; what
/// XDMF cannot say (refinement levels, element types without an XDMF
/// number type, other skeletons) is left out and named in a comment.
std::string describeXdmf(Source& source, const std::string& dataFile);

}  // namespace Quaril::H5::detail
