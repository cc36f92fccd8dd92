#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace {

struct ShellResult {
    int status;
    std::string output;
};

// Runs a shell command line, returning its exit status and its merged stdout and stderr.
ShellResult Shell(const std::string& command) {
    ShellResult r{-1, {}};
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    if (!p) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.output.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

bool Exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::string Quote(const std::string& s) { return "'" + s + "'"; }

TEST(Packaging, InstalledTreeBuildsAHostWithFindPackageAndPkgConfig) {
    vorn_test::TempDir tmp;
    const std::string prefix = tmp.path() + "/prefix";
    const ShellResult install = Shell(Quote(VORN_CMAKE_COMMAND) + " --install " +
                                      Quote(VORN_BUILD_DIR) + " --prefix " + Quote(prefix));
    ASSERT_EQ(install.status, 0) << install.output;

    const std::string lib = prefix + "/" + VORN_INSTALL_LIBDIR;
    for (const std::string& f :
         {lib + "/libvorn_core.so", lib + "/libvorn_hal.so", prefix + "/bin/vornd",
          prefix + "/bin/vornctl", prefix + "/include/vorn_core/vorn_core.h",
          prefix + "/include/vorn_core/platform/LogMessage.h",
          prefix + "/include/vorn_core/services/SensorService.h",
          lib + "/cmake/vorn_core/vorn_coreConfig.cmake", lib + "/pkgconfig/vorn_core.pc",
          prefix + "/" + VORN_PYTHON_DIR + "/vorn_client.py"})
        EXPECT_TRUE(Exists(f)) << f << "\n" << install.output;

    // find_package(vorn_core) -> vorn_core::vorn_core.
    const std::string hostBuild = tmp.path() + "/host";
    const ShellResult configure = Shell(
        Quote(VORN_CMAKE_COMMAND) + " -S " + Quote(VORN_HOST_DIR) + " -B " + Quote(hostBuild) +
        " -G " + Quote(VORN_CMAKE_GENERATOR) + " -DCMAKE_CXX_COMPILER=" + Quote(VORN_CXX_COMPILER) +
        " -DCMAKE_PREFIX_PATH=" + Quote(prefix));
    ASSERT_EQ(configure.status, 0) << configure.output;
    const ShellResult build = Shell(Quote(VORN_CMAKE_COMMAND) + " --build " + Quote(hostBuild));
    ASSERT_EQ(build.status, 0) << build.output;
    const ShellResult host = Shell(Quote(hostBuild + "/vorn_host"));
    EXPECT_EQ(host.status, 0) << host.output;
    // The host's own subclasses of CmdIOService and SFService answered a command of its own.
    const std::string served = "JXT+HOST -> 0 HOST:OK (1 request, typed)";
    EXPECT_NE(host.output.find("name<misc>"), std::string::npos) << host.output;
    EXPECT_NE(host.output.find(served), std::string::npos) << host.output;

    // pkg-config, with the tree found from the .pc file's own place.
    const std::string pc = "PKG_CONFIG_PATH=" + Quote(lib + "/pkgconfig") + " pkg-config";
    const ShellResult flags = Shell(pc + " --cflags --libs vorn_core");
    ASSERT_EQ(flags.status, 0) << flags.output;
    EXPECT_NE(flags.output.find("include/vorn_core"), std::string::npos) << flags.output;
    EXPECT_NE(flags.output.find("-lvorn_core"), std::string::npos) << flags.output;
    const std::string exe = tmp.path() + "/host_pc";
    const ShellResult compile =
        Shell(Quote(VORN_CXX_COMPILER) + " -std=c++17 " +
              Quote(std::string(VORN_HOST_DIR) + "/main.cpp") + " -o " + Quote(exe) + " $(" + pc +
              " --cflags --libs vorn_core)" + " -Wl,-rpath," + Quote(lib));
    ASSERT_EQ(compile.status, 0) << compile.output;
    const ShellResult hostPc = Shell(Quote(exe));
    EXPECT_EQ(hostPc.status, 0) << hostPc.output;
    EXPECT_NE(hostPc.output.find(served), std::string::npos) << hostPc.output;
}

// The listed paths of `dpkg-deb --contents`, one a line ("./usr/bin/vornd" -> "/usr/bin/vornd").
std::string ContentsPaths(const std::string& deb) {
    const ShellResult r =
        Shell("dpkg-deb --contents " + Quote(deb) + " | awk '{ print $6 }' | sed 's|^\\.||'");
    return r.status == 0 ? r.output : "";
}

bool Lists(const std::string& contents, const std::string& path) {
    return ("\n" + contents).find("\n" + path + "\n") != std::string::npos;
}

TEST(Packaging, CpackMakesARuntimeAndADevelopmentDebThatUnpackAndRun) {
    if (Shell("command -v dpkg-deb").status != 0) GTEST_SKIP() << "dpkg-deb is not installed";
    vorn_test::TempDir tmp;
    const ShellResult cpack =
        Shell("cd " + Quote(VORN_BUILD_DIR) + " && " + Quote(VORN_CPACK_COMMAND) +
              " -G DEB --config CPackConfig.cmake -B " + Quote(tmp.path()));
    ASSERT_EQ(cpack.status, 0) << cpack.output;
    const std::string version = VORN_VERSION;
    const std::string runtime = tmp.path() + "/vorn_" + version + "_" + VORN_DEB_ARCH + ".deb";
    const std::string dev = tmp.path() + "/vorn-dev_" + version + "_" + VORN_DEB_ARCH + ".deb";

    const ShellResult fields = Shell("dpkg-deb -f " + Quote(runtime) + " && dpkg-deb -f " +
                                     Quote(dev) + " Package Depends");
    ASSERT_EQ(fields.status, 0) << fields.output;
    for (const std::string& field : std::vector<std::string>{
             std::string("Package: vorn\n"), "Version: " + version + "\n", "android-liblog",
             "libjsoncpp25", "Package: vorn-dev\nDepends: vorn (= " + version + ")\n"})
        EXPECT_NE(fields.output.find(field), std::string::npos) << field << "\n" << fields.output;

    // What a device or server runs, and nothing to build with; the reverse for the other.
    const std::string lib = std::string("/usr/") + VORN_INSTALL_LIBDIR;
    const std::string rt = ContentsPaths(runtime);
    for (const std::string& path : {std::string("/usr/bin/vornd"), std::string("/usr/bin/vornctl"),
                                    lib + "/libvorn_core.so." + version, lib + "/libvorn_hal.so",
                                    std::string("/usr/lib/systemd/system/vornd.service"),
                                    std::string("/usr/share/man/man8/vornd.8.gz"),
                                    std::string("/usr/share/doc/vorn/copyright"),
                                    std::string("/usr/lib/python3/dist-packages/vorn_client.py")})
        EXPECT_TRUE(Lists(rt, path)) << path << " not in the runtime package:\n" << rt;
    EXPECT_EQ(rt.find("/usr/include/"), std::string::npos) << rt;
    EXPECT_FALSE(Lists(rt, lib + "/libvorn_core.so")) << rt;
    const std::string dv = ContentsPaths(dev);
    for (const std::string& path : std::vector<std::string>{
             std::string("/usr/include/vorn_core/vorn_core.h"),
             std::string("/usr/include/vorn_core/service/SFService.h"), lib + "/libvorn_core.so",
             lib + "/pkgconfig/vorn_core.pc", lib + "/cmake/vorn_core/vorn_coreConfig.cmake",
             "/usr/share/doc/vorn-dev/copyright"})
        EXPECT_TRUE(Lists(dv, path)) << path << " not in the development package:\n" << dv;
    EXPECT_EQ(dv.find("/usr/bin/"), std::string::npos) << dv;

    // ld.so's cache learns of the library once dpkg is done; programs built against it depend
    // on the runtime package.
    const ShellResult control = Shell("dpkg-deb -I " + Quote(runtime) + " triggers shlibs");
    EXPECT_EQ(control.status, 0) << control.output;
    EXPECT_NE(control.output.find("\nactivate-noawait ldconfig\n"), std::string::npos)
        << control.output;
    EXPECT_NE(control.output.find("libvorn_core 1 vorn (>= " + version + ")"), std::string::npos)
        << control.output;

    // Unpacked into a scratch root, the daemon finds its library through its RUNPATH, and the
    // unit starts the daemon where the package put it.
    const std::string root = tmp.path() + "/root";
    const ShellResult unpack = Shell("dpkg-deb -x " + Quote(runtime) + " " + Quote(root) +
                                     " && dpkg-deb -x " + Quote(dev) + " " + Quote(root));
    ASSERT_EQ(unpack.status, 0) << unpack.output;
    const ShellResult run = Shell(Quote(root + "/usr/bin/vornd") + " --version");
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find(version), std::string::npos) << run.output;
    const ShellResult unit =
        Shell("grep '^ExecStart=' " + Quote(root + "/usr/lib/systemd/system/vornd.service"));
    EXPECT_EQ(unit.output, "ExecStart=/usr/bin/vornd --socket vorn $VORND_OPTS\n");
    // The Python client imports from the folder Debian's python3 searches under /usr.
    const ShellResult python =
        Shell("PYTHONPATH=" + Quote(root + "/usr/lib/python3/dist-packages") +
              " python3 -c 'import vorn_client; print(vorn_client.VornClient.__name__)'");
    EXPECT_EQ(python.output, "VornClient\n");
    if (Exists("/usr/bin/python3")) {
        const ShellResult path = Shell(
            "/usr/bin/python3 -c 'import sys; print(\"/usr/lib/python3/dist-packages\" in "
            "sys.path)'");
        EXPECT_EQ(path.output, "True\n");
    }
    // Where systemd is at hand, its own reader finds no unknown or misspelt directive (the copy
    // names the unpacked daemon, since the check looks for the program).
    if (Shell("command -v systemd-analyze").status == 0) {
        const std::string copy = tmp.path() + "/vornd.service";
        const ShellResult verify =
            Shell("sed 's|^ExecStart=/usr/bin/vornd|ExecStart=" + root + "/usr/bin/vornd|' " +
                  Quote(root + "/usr/lib/systemd/system/vornd.service") + " > " + Quote(copy) +
                  " && systemd-analyze verify --man=no " + Quote(copy));
        EXPECT_EQ(verify.status, 0) << verify.output;
        EXPECT_EQ(verify.output, "");
    }
}

}  // namespace
