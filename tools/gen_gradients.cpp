// Writes dti/gradient_vectors.cpp: the default MPG direction table for 6 to 129
// diffusion-weighted channels.
//
//   quorix-gen-gradients > dti/gradient_vectors.cpp
//   quorix-gen-gradients FIRST LAST    only the rows for FIRST..LAST directions, as they
//                                      appear inside the file (for checking it quickly)
//
// The rows for 6, 13 and 30 directions are the vendor tables the program has always
// used and are copied verbatim. Every other row is a set of n directions spread by
// electrostatic repulsion: n antipodal pairs of unit charges on the sphere (a direction
// and its opposite measure the same diffusion), moved down the energy gradient from a
// fixed pseudo-random start until the energy stops falling. Everything is deterministic,
// so running the program again reproduces the committed file byte for byte.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr int kFirstRow = 6;
constexpr int kLastRow = 129;

struct Direction {
  double x, y, z;
};

// ---- the fixed vendor rows, as text so that they are written exactly as given ----------
struct FixedRow {
  int n;
  const char* const (*values)[3];
};

constexpr const char* kSix[6][3] = {
    {"0.707", "0", "0.707"},  {"-0.707", "0", "0.707"}, {"0", "0.707", "0.707"},
    {"0", "0.707", "-0.707"}, {"0.707", "0.707", "0"},  {"-0.707", "0.707", "0"},
};

constexpr const char* kThirteen[13][3] = {
    {"-0.754267", "0.1735", "-0.633229"},   {"0.330321", "-0.372227", "0.867372"},
    {"-0.533036", "-0.458932", "0.710813"}, {"-0.686808", "-0.708384", "-0.162748"},
    {"-0.321357", "0.941504", "-0.101486"}, {"0.617869", "0.786068", "-0.018273"},
    {"0.019352", "0.576223", "0.817064"},   {"0.311369", "-0.9489", "0.051358"},
    {"-0.882506", "0.313695", "0.350398"},  {"-0.038449", "-0.536051", "-0.843309"},
    {"0.184148", "0.468947", "-0.863816"},  {"0.936882", "0.003852", "0.349625"},
    {"0.813568", "-0.236011", "-0.531419"},
};

constexpr const char* kThirty[30][3] = {
    {"-0.006654", "0.898918", "0.438067"},  {"0.910432", "0.375861", "-0.172745"},
    {"-0.739286", "0.066128", "-0.670137"}, {"-0.119882", "0.594207", "-0.795328"},
    {"-0.639563", "0.726562", "0.251131"},  {"0.639563", "-0.726562", "-0.251131"},
    {"-0.667876", "-0.544736", "0.507154"}, {"0.296407", "-0.43603", "-0.849718"},
    {"0.016513", "-0.873455", "-0.486624"}, {"-0.503801", "-0.553036", "-0.663578"},
    {"-0.974931", "0.216192", "-0.052637"}, {"0.464845", "0.775385", "-0.427431"},
    {"0.624262", "-0.609878", "0.488207"},  {"0.174067", "-0.971582", "0.160404"},
    {"0.2883", "0.446205", "0.847221"},     {"-0.623982", "0.663039", "-0.413552"},
    {"0.453897", "0.268396", "-0.849671"},  {"0.965072", "-0.241654", "0.101194"},
    {"-0.834456", "0.067047", "0.546981"},  {"-0.902484", "-0.411365", "-0.127678"},
    {"0.819761", "-0.157436", "-0.550642"}, {"0.587501", "0.769195", "0.251359"},
    {"-0.459447", "-0.888195", "-0.004339"}, {"-0.274944", "-0.145673", "0.950361"},
    {"-0.369846", "0.465979", "0.80379"},   {"-0.086213", "0.978861", "-0.18547"},
    {"0.818783", "0.195207", "0.539897"},   {"-0.178395", "-0.03562", "-0.983314"},
    {"0.381426", "-0.195029", "0.903592"},  {"-0.059071", "-0.716929", "0.694639"},
};

const FixedRow kFixedRows[] = {{6, kSix}, {13, kThirteen}, {30, kThirty}};

// ---- deterministic pseudo-random start ----------------------------------------------------

// splitmix64: tiny, and the same sequence on every platform (unlike the standard
// library's distributions).
struct Random {
  uint64_t state;
  uint64_t next() {
    uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }  // [0, 1)
};

Direction normalized(Direction d) {
  const double length = std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z);
  return {d.x / length, d.y / length, d.z / length};
}

std::vector<Direction> random_start(int n, uint64_t seed) {
  Random random{seed};
  std::vector<Direction> points(n);
  for (Direction& p : points) {
    const double z = 2.0 * random.uniform() - 1.0;
    const double phi = 2.0 * M_PI * random.uniform();
    const double r = std::sqrt(std::max(0.0, 1.0 - z * z));
    p = {r * std::cos(phi), r * std::sin(phi), z};
  }
  return points;
}

// ---- electrostatic repulsion of antipodal pairs ----------------------------------------

// Energy of n charges and their n mirror images, counting each unordered pair of distinct
// directions once through both |p - q| and |p + q|.
double energy(const std::vector<Direction>& p) {
  double e = 0.0;
  for (size_t i = 0; i < p.size(); ++i) {
    for (size_t j = i + 1; j < p.size(); ++j) {
      const double dx = p[i].x - p[j].x, dy = p[i].y - p[j].y, dz = p[i].z - p[j].z;
      const double sx = p[i].x + p[j].x, sy = p[i].y + p[j].y, sz = p[i].z + p[j].z;
      e += 1.0 / std::sqrt(dx * dx + dy * dy + dz * dz) +
           1.0 / std::sqrt(sx * sx + sy * sy + sz * sz);
    }
  }
  return e;
}

// Tangential part of the Coulomb force on every point.
std::vector<Direction> forces(const std::vector<Direction>& p) {
  std::vector<Direction> f(p.size(), Direction{0.0, 0.0, 0.0});
  for (size_t i = 0; i < p.size(); ++i) {
    for (size_t j = i + 1; j < p.size(); ++j) {
      const double dx = p[i].x - p[j].x, dy = p[i].y - p[j].y, dz = p[i].z - p[j].z;
      const double sx = p[i].x + p[j].x, sy = p[i].y + p[j].y, sz = p[i].z + p[j].z;
      const double d2 = dx * dx + dy * dy + dz * dz;
      const double s2 = sx * sx + sy * sy + sz * sz;
      const double kd = 1.0 / (d2 * std::sqrt(d2));
      const double ks = 1.0 / (s2 * std::sqrt(s2));
      // i is pushed away from j and from -j; j likewise from i and from -i.
      f[i].x += kd * dx + ks * sx;
      f[i].y += kd * dy + ks * sy;
      f[i].z += kd * dz + ks * sz;
      f[j].x += -kd * dx + ks * sx;
      f[j].y += -kd * dy + ks * sy;
      f[j].z += -kd * dz + ks * sz;
    }
  }
  for (size_t i = 0; i < p.size(); ++i) {
    const double radial = f[i].x * p[i].x + f[i].y * p[i].y + f[i].z * p[i].z;
    f[i].x -= radial * p[i].x;
    f[i].y -= radial * p[i].y;
    f[i].z -= radial * p[i].z;
  }
  return f;
}

// Gradient descent with an adaptive step: grow it after a step that lowered the energy,
// halve it and retry after one that did not, stop when it becomes negligible.
std::vector<Direction> spread(int n, uint64_t seed) {
  std::vector<Direction> points = random_start(n, seed);
  double e = energy(points);
  double step = 0.01 / n;
  for (int iteration = 0; iteration < 5000 && step > 1e-12; ++iteration) {
    const std::vector<Direction> f = forces(points);
    std::vector<Direction> trial(points.size());
    for (size_t i = 0; i < points.size(); ++i) {
      trial[i] = normalized({points[i].x + step * f[i].x, points[i].y + step * f[i].y,
                             points[i].z + step * f[i].z});
    }
    const double trial_energy = energy(trial);
    if (trial_energy < e) {
      const bool settled = e - trial_energy < 1e-13 * e;
      points.swap(trial);
      e = trial_energy;
      step *= 1.2;
      if (settled) break;
    } else {
      step *= 0.5;
    }
  }
  return points;
}

// Puts every direction into the upper hemisphere (a direction and its opposite are the
// same gradient) and orders them from the pole down, which makes the table easier to
// read; neither changes the set.
void canonicalise(std::vector<Direction>& points) {
  for (Direction& p : points) {
    if (p.z < 0.0 || (p.z == 0.0 && p.y < 0.0)) p = {-p.x, -p.y, -p.z};
  }
  std::stable_sort(points.begin(), points.end(),
                   [](const Direction& a, const Direction& b) { return a.z > b.z; });
}

// ---- output ---------------------------------------------------------------------------------

// A float literal for a decimal string: "0" becomes "0.0f", "0.707" becomes "0.707f".
std::string literal(const std::string& text) {
  return text.find('.') == std::string::npos ? text + ".0f" : text + "f";
}

std::string six_decimals(double value) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.6f", value);
  std::string text = buffer;
  if (text == "-0.000000") text = "0.000000";
  return text;
}

void print_row(int n, const std::vector<std::string>& values) {
  std::printf("    // %d directions\n    {\n", n);
  for (int i = 0; i < n; ++i) {
    std::printf("        {%s, %s, %s},\n", literal(values[3 * i]).c_str(),
                literal(values[3 * i + 1]).c_str(), literal(values[3 * i + 2]).c_str());
  }
  std::printf("    },\n");
}

void print_header() {
  std::printf(
      "// Default MPG directions for 6 to 129 diffusion-weighted channels.\n"
      "// Generated by tools/gen_gradients.cpp; do not edit by hand. Regenerate with\n"
      "//   quorix-gen-gradients > dti/gradient_vectors.cpp\n"
      "#include \"dti/gradient_vectors.h\"\n"
      "\n"
      "const float gradient_vectors[kPcdGradientRows][kPcdGradientSlots][3] = {\n");
}

// The row for n directions as decimal text: the vendor table, or a spread set.
std::vector<std::string> row_values(int n) {
  std::vector<std::string> values;
  for (const FixedRow& row : kFixedRows) {
    if (row.n != n) continue;
    for (int i = 0; i < n; ++i)
      for (int c = 0; c < 3; ++c) values.emplace_back(row.values[i][c]);
    return values;
  }
  std::vector<Direction> points = spread(n, 0x5155524958ull + static_cast<uint64_t>(n));
  canonicalise(points);
  for (const Direction& p : points) {
    values.push_back(six_decimals(p.x));
    values.push_back(six_decimals(p.y));
    values.push_back(six_decimals(p.z));
  }
  std::fprintf(stderr, "\r%d directions", n);
  return values;
}


}  // namespace

int main(int argc, char** argv) {
  int first = kFirstRow;
  int last = kLastRow;
  const bool partial = argc == 3;
  if (partial) {
    first = std::atoi(argv[1]);
    last = std::atoi(argv[2]);
  }
  if (argc != 1 && argc != 3) {
    std::fprintf(stderr, "usage: %s [FIRST LAST]\n", argv[0]);
    return 2;
  }
  if (first < kFirstRow || last > kLastRow || first > last) {
    std::fprintf(stderr, "rows must lie within %d..%d\n", kFirstRow, kLastRow);
    return 2;
  }
  if (!partial) print_header();
  for (int n = first; n <= last; ++n) print_row(n, row_values(n));
  if (!partial) std::printf("};\n");
  std::fprintf(stderr, "\n");
  return 0;
}
