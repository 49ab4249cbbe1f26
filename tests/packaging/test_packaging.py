"""What is installed works where it lies: headers, programs, and projects that find the client library there.

BORVEN_BUILD is the build directory to install from. BORVEN_DEB is a Debian package to try instead of one made from the build
directory.
"""

import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

BUILD = os.environ.get("BORVEN_BUILD", "")
CONSUMER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "consumer")
PATIENCE = 180  # seconds; a deadline for hangs only
STRICT = ("-Wall", "-Wextra", "-Wpedantic", "-Werror")


def run(*command, **options):
    """Returns: what the command prints. Fails with its output when it fails."""
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=PATIENCE,
                          check=False, **options)
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(command)} ended with status {done.returncode}:\n{done.stdout[:8000]}")
    return done.stdout


def find(folder, name):
    """Returns: the only file of this name below a folder."""
    found = glob.glob(f"{glob.escape(folder)}/**/{name}", recursive=True)
    if len(found) != 1:
        raise AssertionError(f"expected one {name} below {folder}, found {found}")
    return found[0]


def install(prefix):
    run("cmake", "--install", BUILD, "--prefix", prefix)


class Folder(unittest.TestCase):
    """A test with a folder of its own."""

    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="borven-packaging-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def path(self, name):
        return os.path.join(self.folder, name)


class Headers(Folder):

    def setUp(self):
        super().setUp()
        install(self.path("prefix"))
        self.include = self.path("prefix/include")
        self.headers = sorted(glob.glob(f"{self.include}/msgbus/*.h"))
        self.assertGreater(len(self.headers), 5)

    def compile(self, compiler, standard, header, *options):
        language = "c" if standard.startswith("c1") else "c++"
        return run(compiler, f"-std={standard}", *STRICT, *options, "-I", self.include, "-x", language, "-include", header,
                   "/dev/null")

    def expect_each_to_compile(self, compiler):
        for header in self.headers:
            for standard in ("c++17", "c++20"):
                with self.subTest(header=os.path.basename(header), standard=standard):
                    self.compile(compiler, standard, header, "-fsyntax-only")

    def test_each_compiles_alone_with_gcc(self):
        self.expect_each_to_compile("g++")

    @unittest.skipUnless(shutil.which("clang++"), "clang++ is not installed")
    def test_each_compiles_alone_with_clang(self):
        self.expect_each_to_compile("clang++")

    def test_that_of_c_compiles_as_c11(self):
        self.compile("gcc", "c11", f"{self.include}/msgbus/msgbus_c.h", "-fsyntax-only")

    def test_each_needs_only_the_standard_library(self):
        for header in self.headers:
            with self.subTest(header=os.path.basename(header)):
                read = re.findall(r'^# \d+ "(/[^"]+)"', self.compile("g++", "c++20", header, "-E"), re.MULTILINE)
                foreign = {path for path in read if re.search(r"/(boost|fmt)/", path)
                           or path.startswith(f"{self.include}/") and not path.startswith(f"{self.include}/msgbus/")}
                self.assertIn(header, read)
                self.assertEqual(foreign, set())


class Installed(Folder):
    """Programs and projects with what lies in a prefix. A class per way to get it there."""

    def expect_programs_to_start(self, prefix):
        for program in ("msgbusd", "msgbus"):
            self.assertRegex(run(f"{prefix}/bin/{program}", "--version", env={}), rf"^{program} \d")

    def build_with_cmake(self, prefix, standard, with_c):
        """Returns: the programs. A project outside of the tree finds the library by find_package."""
        build = self.path(f"cmake-{standard}")
        run("cmake", "-G", "Ninja", "-S", CONSUMER, "-B", build, f"-DCMAKE_PREFIX_PATH={prefix}",
            f"-DCMAKE_CXX_STANDARD={standard}", "-DCMAKE_CXX_STANDARD_REQUIRED=ON", "-DCMAKE_CXX_EXTENSIONS=OFF",
            f"-DWITH_C={with_c}", "-DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF")
        with open(f"{build}/CMakeCache.txt", encoding="utf-8") as cache:
            self.assertIn(f"msgbus_DIR:PATH={prefix}/", cache.read())
        run("cmake", "--build", build)
        return [f"{build}/consumer"] + ([f"{build}/consumer_c"] if with_c else [])

    def build_with_pkg_config(self, prefix, compiler, standard, source):
        """Returns: the program."""
        environment = {**os.environ, "PKG_CONFIG_PATH": os.path.dirname(find(prefix, "msgbus.pc"))}
        options = run("pkg-config", "--cflags", "--libs", "msgbus", env=environment).split()
        libraries = run("pkg-config", "--variable=libdir", "msgbus", env=environment).strip()
        program = self.path(f"pkg-config-{standard}")
        run(compiler, f"-std={standard}", *STRICT, f"{CONSUMER}/{source}", *options, f"-Wl,-rpath,{libraries}", "-o", program)
        return program

    def expect_needs(self, program):
        """Fails unless the program needs the client library by its name with a version, and nothing else of the bus."""
        needed = set(re.findall(r"NEEDED.*\[(.*)\]", run("readelf", "--dynamic", program)))
        self.assertIn("libmsgbus.so.0", needed)
        self.assertEqual({name for name in needed if re.search("borven|messagebus|boost|fmt", name)}, set())

    def expect_to_work(self, prefix):
        """Fails unless projects can be built with what lies in `prefix`, and work with the server that lies there."""
        self.expect_programs_to_start(prefix)
        programs = [*self.build_with_cmake(prefix, 17, False), *self.build_with_cmake(prefix, 20, True),
                    self.build_with_pkg_config(prefix, "g++", "c++17", "consumer.cpp"),
                    self.build_with_pkg_config(prefix, "g++", "c++20", "consumer.cpp"),
                    self.build_with_pkg_config(prefix, "gcc", "c11", "consumer.c")]
        runtime = self.path("runtime")
        os.mkdir(runtime, 0o700)
        environment = {"BORVEN_RUNTIME_DIR": runtime}
        ready, write_end = os.pipe()
        with subprocess.Popen([f"{prefix}/bin/msgbusd", "--ready-fd", str(write_end), "--log-level", "warning"],
                              env=environment, pass_fds=(write_end,)) as server:
            os.close(write_end)
            try:
                with os.fdopen(ready, "rb") as pipe:
                    self.assertEqual(pipe.read(), b"READY\n")
                for program in programs:
                    with self.subTest(program=os.path.relpath(program, self.folder)):
                        self.expect_needs(program)
                        self.assertEqual(run(program, env=environment), "temperature 21\n")
                packages = f"{prefix}/lib/python3/dist-packages"
                self.assertEqual(run(sys.executable, "-B", f"{CONSUMER}/consumer.py",
                                     env={**environment, "PYTHONPATH": packages}), "temperature 21\n")
                server.terminate()
                self.assertEqual(server.wait(PATIENCE), 0)
            finally:
                server.kill()


class Prefix(Installed):

    def test_projects_work_in_a_prefix_that_was_moved(self):
        install(self.path("first"))
        os.rename(self.path("first"), self.path("second"))
        self.expect_to_work(self.path("second"))

    def test_the_unit_names_the_prefix_of_the_installation(self):
        for name in ("first", "with a 100% odd name"):
            prefix = self.path(name)
            install(prefix)
            with open(f"{prefix}/lib/systemd/user/msgbusd.service", encoding="utf-8") as unit:
                program = re.search(r'^ExecStart="([^"]+)"', unit.read(), re.MULTILINE).group(1).replace("%%", "%")
            self.assertEqual(program, f"{prefix}/bin/msgbusd")
            self.expect_programs_to_start(prefix)


class Package(Installed):

    @classmethod
    def setUpClass(cls):
        given = os.environ.get("BORVEN_DEB")
        if given:
            cls.package = os.path.abspath(given)
            return
        folder = tempfile.TemporaryDirectory(prefix="borven-packaging-")
        cls.addClassCleanup(folder.cleanup)
        run("cpack", "-G", "DEB", "-B", folder.name, cwd=BUILD)
        cls.package, = glob.glob(f"{folder.name}/*.deb")

    def test_projects_work_with_the_unpacked_package(self):
        run("dpkg-deb", "-x", self.package, self.path("root"))
        self.expect_to_work(self.path("root/usr"))

    def test_the_unit_names_the_program_of_the_package(self):
        run("dpkg-deb", "-x", self.package, self.path("root"))
        with open(self.path("root/usr/lib/systemd/user/msgbusd.service"), encoding="utf-8") as unit:
            self.assertIn('\nExecStart="/usr/bin/msgbusd" ', unit.read())

    def test_it_says_what_it_needs_and_what_it_offers(self):
        run("dpkg-deb", "-e", self.package, self.path("control"))
        with open(self.path("control/control"), encoding="utf-8") as control:
            depends = re.search("^Depends: (.*)$", control.read(), re.MULTILINE).group(1)
        for name in ("libboost-thread", "libc6 ", "libstdc++6 "):
            self.assertIn(name, depends)
        with open(self.path("control/shlibs"), encoding="utf-8") as shlibs:
            self.assertRegex(shlibs.read(), r"(?m)^libmsgbus 0 borven-message-bus \(>= ")
        with open(self.path("control/postinst"), encoding="utf-8") as postinst:
            self.assertIn("ldconfig", postinst.read())


if __name__ == "__main__":
    unittest.main()
