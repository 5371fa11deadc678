#include "tools/DemoData.hpp"

#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "grid/GridConstructors.hpp"

namespace Quaril::Tools {
namespace {

using Pelorn::PhysicalSpace::point;
using Pelorn::PhysicalSpace::tvector;

constexpr int Steps = 50;
constexpr double Step = 0.02;
constexpr double Pi = 3.14159265358979323846;

void addFluid(Grid& grid, double t) {
  constexpr uint64_t n = 16;
  const double h = 1.0 / (n - 1);
  makeUniformGrid(grid, {n, n, n}, point{0, 0, 0}, tvector{h, h, h});
  std::vector<double> pressure;
  std::vector<tvector> velocity;
  for (uint64_t k = 0; k < n; ++k) {
    for (uint64_t j = 0; j < n; ++j) {
      for (uint64_t i = 0; i < n; ++i) {
        const double x = i * h, y = j * h, z = k * h;
        pressure.push_back(std::sin(2 * Pi * (x - t)) * std::cos(2 * Pi * y) + z);
        // A vortex about the z axis through the centre, turning with time.
        velocity.push_back(tvector{-(y - 0.5) * std::cos(t), (x - 0.5) * std::cos(t), 0.1});
      }
    }
  }
  addVertexField(grid, "pressure", pressure);
  addVertexField(grid, "velocity", velocity);
}

void addParticles(Grid& grid, double t) {
  std::vector<point> points;
  std::vector<float> speed;
  for (int p = 0; p < 64; ++p) {
    const double angle = 2 * Pi * p / 64 + 4 * t;
    const double radius = 0.1 + 0.005 * p;
    points.push_back(point{0.5 + radius * std::cos(angle), 0.5 + radius * std::sin(angle), t});
    speed.push_back(static_cast<float>(4 * radius));
  }
  makePointCloud(grid, points);
  addVertexField(grid, "speed", speed);
}

void addSurface(Grid& grid, double t) {
  constexpr uint32_t n = 8;
  std::vector<point> points;
  for (uint32_t j = 0; j < n; ++j) {
    for (uint32_t i = 0; i < n; ++i) {
      const double x = i / double(n - 1), y = j / double(n - 1);
      points.push_back(point{x, y, 0.1 * std::sin(2 * Pi * (x + t))});
    }
  }
  std::vector<TriangleIndices> triangles;
  for (uint32_t j = 0; j + 1 < n; ++j) {
    for (uint32_t i = 0; i + 1 < n; ++i) {
      const uint32_t corner = j * n + i;
      triangles.push_back({corner, corner + 1, corner + n + 1});
      triangles.push_back({corner, corner + n + 1, corner + n});
    }
  }
  makeTriangleSurface(grid, points, triangles);
  const float area = 0.5f / ((n - 1) * (n - 1));
  addCellField(grid, "area", std::vector<float>(triangles.size(), area));
}

void addRefined(Grid& grid, double t) {
  constexpr uint64_t n = 8;
  makeUniformGrid(grid, {n, n, n}, point{0.25, 0.25, 0.25}, tvector{0.5 / 7, 0.5 / 7, 0.5 / 7});
  addRefinementLevels(grid, 2);
  addVertexField(grid, "density", std::vector<double>(n * n * n, 1 + t));
}

void addBlocks(Grid& grid, double t) {
  std::vector<UniformBlock> blocks;
  std::map<std::string, std::vector<int32_t>> rank;
  for (int b = 0; b < 4; ++b) {
    const std::string name = "block" + std::to_string(b);
    blocks.push_back(
        {name, {5, 5, 5}, point{0.5 * (b % 2), 0.5 * (b / 2), t}, tvector{0.1, 0.1, 0.1}});
    rank[name] = std::vector<int32_t>(125, b);
  }
  makeFragmentedUniformGrid(grid, blocks);
  addVertexField(grid, "rank", rank);
}

}  // namespace

BundlePtr makeDemoBundle() {
  BundlePtr bundle;
  bundle.create();
  bundle->setAttribute("title", std::string("Quaril demo run"));
  for (int step = 0; step < Steps; ++step) {
    const double t = step * Step;
    SlicePtr slice = (*bundle)[t];
    slice->setAttribute("cycle", int64_t{step});
    addFluid(*(*slice)["fluid"], t);
    addParticles(*(*slice)["particles"], t);
    addSurface(*(*slice)["surface"], t);
    addBlocks(*(*slice)["blocks"], t);
    if (step % 10 == 0) addRefined(*slice->newGrid("refined", "fluid"), t);
  }
  return bundle;
}

}  // namespace Quaril::Tools
