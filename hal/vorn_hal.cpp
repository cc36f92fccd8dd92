// The sample HAL: the functions that the built-in configuration names, so that the daemon
// serves real replies off-device. It does not link libvorn_core; the library finds the
// functions by name with dlsym.
//
// Every command function has the signature int(std::vector<char>* in, std::vector<char>* out):
// `in` holds the command's parameters (no terminating zero), `out` is empty and receives the
// reply bytes. The result is 0, an errno value (1..1000) or a library code (1001..1010). On a
// failure we leave `out` empty so that the library answers with the code's text line.
//
// Sensor parameter grammar (gsensor, gyro, accelerometer):
//   ""      one reading (the default)
//   "1"     one reading
//   "1,N"   N readings, 1 <= N <= 64, separated by ";"
//   "0"     self-test: takes one reading, answers "SELFTEST:PASS(<source>)"
//   "2"     the source of the readings: "SOURCE:iio:deviceN(name)" or "SOURCE:simulated"
// Anything else is EINVAL with no bytes.
//
// A reading is "X:<x>,Y:<y>,Z:<z>" with three decimals: gsensor in g, accelerometer in m/s^2,
// gyro in rad/s. The values come from the first Linux IIO device under /sys/bus/iio/devices
// (or $VORN_HAL_IIO_ROOT) that has the x, y and z raw channels of the sensor's kind; without
// one the reading is simulated and deterministic (a device lying flat and still).

#include <dirent.h>
#include <errno.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#define VORN_HAL_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr double kStandardGravity = 9.80665;
constexpr int kMaxSamples = 64;

enum class Kind { kGravity, kAccel, kGyro };

struct Reading {
    double x = 0;
    double y = 0;
    double z = 0;
};

std::string IioRoot() {
    const char* root = std::getenv("VORN_HAL_IIO_ROOT");
    return (root && *root) ? root : "/sys/bus/iio/devices";
}

bool ReadNumber(const std::string& path, double& value) {
    std::ifstream in(path);
    if (!in) return false;
    in >> value;
    return static_cast<bool>(in);
}

std::string ReadLine(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

// The IIO channel type of a sensor kind: accelerometers are "accel", gyroscopes "anglvel".
const char* ChannelType(Kind kind) { return kind == Kind::kGyro ? "anglvel" : "accel"; }

// Finds the first device folder with in_<type>_{x,y,z}_raw; empty when there is none.
std::string FindIioDevice(Kind kind) {
    const std::string root = IioRoot();
    const std::string type = ChannelType(kind);
    DIR* dir = opendir(root.c_str());
    if (!dir) return {};
    std::vector<std::string> names;
    while (dirent* e = readdir(dir)) {
        if (std::strncmp(e->d_name, "iio:device", 10) == 0) names.push_back(e->d_name);
    }
    closedir(dir);
    // readdir's order is the file system's; sort so the choice does not change between calls.
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        const std::string dev = root + "/" + name;
        double v;
        if (ReadNumber(dev + "/in_" + type + "_x_raw", v) &&
            ReadNumber(dev + "/in_" + type + "_y_raw", v) &&
            ReadNumber(dev + "/in_" + type + "_z_raw", v))
            return dev;
    }
    return {};
}

// value = (raw + offset) * scale, with per-axis attributes taking precedence over shared ones.
bool ReadIioAxis(const std::string& dev, const std::string& type, char axis, double& value) {
    const std::string prefix = dev + "/in_" + type + "_";
    double raw;
    if (!ReadNumber(prefix + axis + "_raw", raw)) return false;
    double scale = 1.0;
    if (!ReadNumber(prefix + axis + "_scale", scale)) ReadNumber(prefix + "scale", scale);
    double offset = 0.0;
    if (!ReadNumber(prefix + axis + "_offset", offset)) ReadNumber(prefix + "offset", offset);
    value = (raw + offset) * scale;
    return true;
}

bool ReadIio(const std::string& dev, Kind kind, Reading& r) {
    const std::string type = ChannelType(kind);
    if (!ReadIioAxis(dev, type, 'x', r.x) || !ReadIioAxis(dev, type, 'y', r.y) ||
        !ReadIioAxis(dev, type, 'z', r.z))
        return false;
    // IIO reports acceleration in m/s^2; the g-sensor answers in g.
    if (kind == Kind::kGravity) {
        r.x /= kStandardGravity;
        r.y /= kStandardGravity;
        r.z /= kStandardGravity;
    }
    return true;
}

// A device lying flat and still, with a small deterministic wobble between samples.
Reading Simulate(Kind kind, int sample) {
    const double wobble = 0.001 * ((sample * 7) % 5 - 2);
    Reading r;
    r.x = wobble;
    r.y = -wobble;
    switch (kind) {
        case Kind::kGravity:
            r.z = 1.0;
            break;
        case Kind::kAccel:
            r.z = kStandardGravity;
            break;
        case Kind::kGyro:
            r.z = wobble / 2;
            break;
    }
    return r;
}

void Append(std::vector<char>* out, const std::string& text) {
    out->insert(out->end(), text.begin(), text.end());
}

std::string Format(const Reading& r) {
    char buf[128];
    // Print -0.000 as 0.000: a still device should not flicker in its sign.
    auto clean = [](double v) { return std::fabs(v) < 0.0005 ? 0.0 : v; };
    std::snprintf(buf, sizeof buf, "X:%.3f,Y:%.3f,Z:%.3f", clean(r.x), clean(r.y), clean(r.z));
    return buf;
}

bool ParseCount(const std::string& text, int& count) {
    if (text.empty() || text.size() > 3) return false;
    int n = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        n = n * 10 + (c - '0');
    }
    if (n < 1 || n > kMaxSamples) return false;
    count = n;
    return true;
}

enum class Op { kRead, kSelfTest, kSource };

// The grammar above; false for anything malformed.
bool ParseSensorParams(const std::string& p, Op& op, int& count) {
    count = 1;
    if (p.empty() || p == "1") {
        op = Op::kRead;
        return true;
    }
    if (p == "0") {
        op = Op::kSelfTest;
        return true;
    }
    if (p == "2") {
        op = Op::kSource;
        return true;
    }
    if (p.compare(0, 2, "1,") == 0) {
        op = Op::kRead;
        return ParseCount(p.substr(2), count);
    }
    return false;
}

int SensorOperate(Kind kind, std::vector<char>* in, std::vector<char>* out) {
    if (!out) return EINVAL;
    const std::string params = in ? std::string(in->begin(), in->end()) : std::string();
    Op op;
    int count;
    if (!ParseSensorParams(params, op, count)) return EINVAL;
    try {
        const std::string dev = FindIioDevice(kind);
        if (op == Op::kSource) {
            if (dev.empty()) {
                Append(out, "SOURCE:simulated");
            } else {
                const std::string name = ReadLine(dev + "/name");
                Append(out, "SOURCE:" + dev.substr(dev.rfind('/') + 1) + "(" + name + ")");
            }
            return 0;
        }
        std::string text;
        for (int i = 0; i < count; ++i) {
            Reading r;
            if (dev.empty()) {
                r = Simulate(kind, i);
            } else if (!ReadIio(dev, kind, r)) {
                // The device vanished or a channel cannot be read: an I/O error, no bytes.
                return EIO;
            }
            if (i > 0) text += ";";
            text += Format(r);
        }
        // The self-test passes when a reading could be taken; it names where it came from.
        if (op == Op::kSelfTest)
            text = "SELFTEST:PASS(" +
                   (dev.empty() ? std::string("simulated") : dev.substr(dev.rfind('/') + 1)) + ")";
        Append(out, text);
        return 0;
    } catch (const std::bad_alloc&) {
        out->clear();
        return ENOMEM;
    }
}

}  // namespace

// "JXT+MEMORY": total and available memory from /proc/meminfo. Parameters: "" or "1".
VORN_HAL_EXPORT int memory_check_cmd(std::vector<char>* in, std::vector<char>* out) {
    if (!out) return EINVAL;
    const std::string params = in ? std::string(in->begin(), in->end()) : std::string();
    if (!params.empty() && params != "1") return EINVAL;
    const char* path = std::getenv("VORN_HAL_MEMINFO");
    std::ifstream meminfo((path && *path) ? path : "/proc/meminfo");
    if (!meminfo) return ENOENT;
    long long total = -1;
    long long available = -1;
    std::string key;
    long long value;
    std::string line;
    while (std::getline(meminfo, line)) {
        std::istringstream fields(line);
        if (!(fields >> key >> value)) continue;
        if (key == "MemTotal:") total = value;
        if (key == "MemAvailable:") available = value;
    }
    if (total < 0 || available < 0) return EIO;
    try {
        Append(out, "MemTotal:" + std::to_string(total) +
                        " kB,MemAvailable:" + std::to_string(available) + " kB");
    } catch (const std::bad_alloc&) {
        out->clear();
        return ENOMEM;
    }
    return 0;
}

VORN_HAL_EXPORT int gsensor_operate_cmd(std::vector<char>* in, std::vector<char>* out) {
    return SensorOperate(Kind::kGravity, in, out);
}

VORN_HAL_EXPORT int gyro_operate_cmd(std::vector<char>* in, std::vector<char>* out) {
    return SensorOperate(Kind::kGyro, in, out);
}

VORN_HAL_EXPORT int accelerometer_operate_cmd(std::vector<char>* in, std::vector<char>* out) {
    return SensorOperate(Kind::kAccel, in, out);
}

// HAL-side buffers, for callers that hand memory across the library boundary.
VORN_HAL_EXPORT void* vorn_hal_malloc(int size) {
    return size > 0 ? std::malloc(static_cast<size_t>(size)) : nullptr;
}

VORN_HAL_EXPORT int vorn_hal_free(void* block) {
    std::free(block);
    return 0;
}
