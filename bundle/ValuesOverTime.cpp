#include "bundle/ValuesOverTime.hpp"

#include <cstring>
#include <sstream>

#include "bundle/GridID.hpp"
#include "grid/GridWalk.hpp"

namespace Quaril {

namespace {

std::string timeText(double time) {
  std::ostringstream text;
  text.precision(17);
  text << time;
  return text.str();
}

/// The field `name` of `grid`, on whatever skeleton it lives, vertices first.
StrongPtr<Field> fieldNamed(const Grid& grid, const std::string& name) {
  StrongPtr<Field> found;
  forEachPlacedField(grid, [&](const SkeletonID&, const Skeleton&, const FieldID& id,
                               const StrongPtr<Field>& field) {
    if (!found && id.Name() == name) found = field;
  });
  return found;
}

}  // namespace

ValuesOverTime valuesOverTime(const Bundle& bundle, const std::string& grid,
                              const std::string& field, const std::vector<uint64_t>& index,
                              double first, double last) {
  ValuesOverTime result;
  const StrongPtr<GridID> id = bundle.getGridList()->find(grid);
  if (!id) {
    result.error = "no grid \"" + grid + "\"";
    return result;
  }
  std::vector<double> times;
  for (const auto& [time, slice] : id->getSliceMap().entries()) {
    if (time >= first && time <= last) times.push_back(time);
  }
  if (times.empty()) {
    result.error = "grid \"" + grid + "\" has no step in the times asked for";
    return result;
  }
  const std::vector<uint64_t> one(index.size(), 1);
  unsigned char* out = nullptr;
  size_t elementBytes = 0;
  DynamicSize extents;
  for (size_t step = 0; step < times.size(); ++step) {
    double time = times[step];
    const auto fail = [&](const std::string& why) {
      result.values.reset();
      result.error = "grid \"" + grid + "\" at time " + timeText(times[step]) + ": " + why;
      return result;
    };
    const SlicePtr slice = bundle(time);
    const StrongPtr<Grid> held = slice ? (*slice)(id) : StrongPtr<Grid>();
    if (!held) return fail("the grid cannot be read");
    const StrongPtr<Field> found = fieldNamed(*held, field);
    if (!found) return fail("no field \"" + field + "\"");
    if (found->nFragments() != 1) return fail("field \"" + field + "\" is fragmented");
    const StrongPtr<CreativeArrayBase> creator = found->getCreator();
    // The same index names the same place only while the extents stay.
    if (creator && step == 0) extents = creator->getSize();
    if (creator && creator->getSize() != extents) {
      return fail("field \"" + field + "\" changes its extents from " + extents.str() + " to " +
                  creator->getSize().str());
    }
    const StrongPtr<MemBase, Cacheable> box = creator ? creator->getRegion(index, one) : nullptr;
    if (!box) return fail(creator ? creator->lastError() : "the field has no data");
    if (!result.values) {
      result.values = makeMemArray(box->getTypeDescriptor(), DynamicSize({times.size()}), false);
      if (!result.values) return fail("no array of its type " + box->getTypeDescriptor().name());
      out = static_cast<unsigned char*>(result.values->rawData());
      elementBytes = box->getTypeDescriptor().size();
    } else if (&box->getTypeDescriptor() != &result.values->getTypeDescriptor()) {
      return fail("field \"" + field + "\" changes its type");
    }
    std::memcpy(out + step * elementBytes, box->rawData(), elementBytes);
  }
  result.times = std::move(times);
  return result;
}

}  // namespace Quaril
