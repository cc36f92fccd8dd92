#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "support/TestSupport.h"

extern "C" {
int memory_check_cmd(std::vector<char>* in, std::vector<char>* out);
int gsensor_operate_cmd(std::vector<char>* in, std::vector<char>* out);
int gyro_operate_cmd(std::vector<char>* in, std::vector<char>* out);
int accelerometer_operate_cmd(std::vector<char>* in, std::vector<char>* out);
void* vorn_hal_malloc(int size);
int vorn_hal_free(void* block);
}

namespace {

using HalFunction = int (*)(std::vector<char>*, std::vector<char>*);

// The output, or "E<code>" (and whatever bytes came) when the function failed.
std::string Call(HalFunction f, const std::string& params) {
    std::vector<char> in(params.begin(), params.end()), out;
    const int code = f(&in, &out);
    return (code ? "E" + std::to_string(code) : "") + std::string(out.begin(), out.end());
}

// Points the HAL at a private IIO tree (empty unless a test fills it), so that readings do not
// depend on the sensors of the machine running the tests.
class SampleHal : public ::testing::Test {
protected:
    void SetUp() override { setenv("VORN_HAL_IIO_ROOT", dir.path().c_str(), 1); }
    void TearDown() override {
        unsetenv("VORN_HAL_IIO_ROOT");
        unsetenv("VORN_HAL_MEMINFO");
    }
    vorn_test::TempDir dir;
};

TEST_F(SampleHal, SensorsWithoutDeviceGiveDeterministicSimulatedReadings) {
    EXPECT_EQ(Call(gsensor_operate_cmd, ""), "X:-0.002,Y:0.002,Z:1.000");
    EXPECT_EQ(Call(accelerometer_operate_cmd, "1"), "X:-0.002,Y:0.002,Z:9.807");
    EXPECT_EQ(Call(gyro_operate_cmd, "1"), "X:-0.002,Y:0.002,Z:-0.001");
    const std::string three = Call(gsensor_operate_cmd, "1,3");
    EXPECT_EQ(three, "X:-0.002,Y:0.002,Z:1.000;X:0.000,Y:0.000,Z:1.000;X:0.002,Y:-0.002,Z:1.000");
    EXPECT_EQ(Call(gsensor_operate_cmd, "1,3"), three);
    EXPECT_EQ(Call(gyro_operate_cmd, "0"), "SELFTEST:PASS(simulated)");
    EXPECT_EQ(Call(accelerometer_operate_cmd, "2"), "SOURCE:simulated");
}

TEST_F(SampleHal, MalformedParametersGiveEinvalWithNoBytes) {
    for (const char* bad : {"x", "1,", "1,0", "1,65", "1,2,3", "3", "01", " 1", "1\r\n", "-1"})
        for (HalFunction f : {gsensor_operate_cmd, gyro_operate_cmd, accelerometer_operate_cmd})
            EXPECT_EQ(Call(f, bad), "E" + std::to_string(EINVAL)) << bad;
    EXPECT_EQ(Call(memory_check_cmd, "abc"), "E" + std::to_string(EINVAL));
    EXPECT_EQ(Call(gsensor_operate_cmd, "1,64").substr(0, 2), "X:");
    std::vector<char> none;
    EXPECT_EQ(gsensor_operate_cmd(&none, nullptr), EINVAL);
    EXPECT_EQ(gsensor_operate_cmd(nullptr, &none), 0) << "a missing input is an empty one";
}

TEST_F(SampleHal, IioDeviceWithAccelChannelsIsReadAndScaled) {
    // The gyroscope channels are missing: only the accelerometer kinds use the device.
    ASSERT_EQ(mkdir((dir.path() + "/iio:device0").c_str(), 0755), 0);
    dir.Write("iio:device0/name", "fake-accel\n");
    dir.Write("iio:device0/in_accel_x_raw", "100\n");
    dir.Write("iio:device0/in_accel_y_raw", "-200\n");
    dir.Write("iio:device0/in_accel_z_raw", "1000\n");
    dir.Write("iio:device0/in_accel_scale", "0.009806650\n");
    dir.Write("iio:device0/in_accel_z_offset", "0\n");
    EXPECT_EQ(Call(accelerometer_operate_cmd, "1"), "X:0.981,Y:-1.961,Z:9.807");
    EXPECT_EQ(Call(gsensor_operate_cmd, ""), "X:0.100,Y:-0.200,Z:1.000");
    EXPECT_EQ(Call(gsensor_operate_cmd, "2"), "SOURCE:iio:device0(fake-accel)");
    EXPECT_EQ(Call(gsensor_operate_cmd, "0"), "SELFTEST:PASS(iio:device0)");
    EXPECT_EQ(Call(gyro_operate_cmd, "2"), "SOURCE:simulated");
}

TEST_F(SampleHal, MemoryFiguresAndBlocks) {
    setenv(
        "VORN_HAL_MEMINFO",
        dir.Write("meminfo", "MemTotal: 16384000 kB\nMemFree: 1 kB\nMemAvailable: 12 kB\n").c_str(),
        1);
    EXPECT_EQ(Call(memory_check_cmd, ""), "MemTotal:16384000 kB,MemAvailable:12 kB");
    setenv("VORN_HAL_MEMINFO", dir.Write("partial", "MemTotal: 5 kB\n").c_str(), 1);
    EXPECT_EQ(Call(memory_check_cmd, ""), "E" + std::to_string(EIO));

    void* block = vorn_hal_malloc(64);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(vorn_hal_free(block), 0);
    EXPECT_EQ(vorn_hal_malloc(0), nullptr);
    EXPECT_EQ(vorn_hal_free(nullptr), 0);
}

}  // namespace
