"""What is installed works where it lies: headers, programs, and projects that find the client library there.

BORVEN_BUILD is the build directory to install from. BORVEN_DEBS is a folder with the Debian packages to try instead of those
that are made from the build directory.
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
        folder = os.environ.get("BORVEN_DEBS")
        if not folder:
            place = tempfile.TemporaryDirectory(prefix="borven-packaging-")
            cls.addClassCleanup(place.cleanup)
            folder = place.name
            run("cpack", "-G", "DEB", "-B", folder, cwd=BUILD)
        cls.packages = {os.path.basename(path).split("_")[0]: os.path.abspath(path) for path in glob.glob(f"{folder}/*.deb")}

    def unpack(self, *names):
        for name in names or self.packages:
            run("dpkg-deb", "-x", self.packages[name], self.path("root"))

    def control(self, name, file="control"):
        """Returns: what a package says about itself."""
        folder = self.path(f"control-{name}")
        if not os.path.isdir(folder):
            run("dpkg-deb", "-e", self.packages[name], folder)
        with open(f"{folder}/{file}", encoding="utf-8") as text:
            return text.read()

    def field(self, package, name):
        return re.search(f"^{name}: (.*)$", self.control(package), re.MULTILINE).group(1)

    def test_there_are_five(self):
        self.assertEqual(set(self.packages), {"msgbusd", "msgbus", "libmsgbus0", "libmsgbus-dev", "python3-msgbus"})

    def test_projects_work_with_the_unpacked_packages(self):
        self.unpack()
        self.expect_to_work(self.path("root/usr"))

    def test_no_file_is_in_two_packages(self):
        seen = {}
        for name, package in self.packages.items():
            for line in run("dpkg-deb", "-c", package).splitlines():
                path = line.split(maxsplit=5)[5].split(" -> ")[0]
                if not path.endswith("/"):
                    self.assertNotIn(path, seen, name)
                    seen[path] = name

    def test_a_program_needs_the_library_package_only(self):
        self.unpack("msgbus", "libmsgbus0")
        self.assertRegex(run(self.path("root/usr/bin/msgbus"), "--version", env={}), r"^msgbus \d")
        shutil.rmtree(self.path("root"))
        self.unpack("msgbusd", "libmsgbus0")
        self.assertRegex(run(self.path("root/usr/bin/msgbusd"), "--version", env={}), r"^msgbusd \d")

    def test_the_units_name_the_program_of_the_package(self):
        self.unpack("msgbusd")
        for manager in ("user", "system"):
            with open(self.path(f"root/usr/lib/systemd/{manager}/msgbusd.service"), encoding="utf-8") as unit:
                self.assertIn('\nExecStart="/usr/bin/msgbusd" ', unit.read())

    def test_they_say_what_they_need_and_what_they_offer(self):
        version = self.field("libmsgbus0", "Version")
        for name in ("libboost-thread", "libc6 ", "libstdc++6 ", f"libmsgbus0 (= {version})"):
            self.assertIn(name, self.field("msgbusd", "Depends"))
        for name in ("msgbus", "libmsgbus-dev", "python3-msgbus"):
            self.assertIn(f"libmsgbus0 (= {version})", self.field(name, "Depends"))
        self.assertNotIn("boost", self.field("libmsgbus0", "Depends"))
        self.assertEqual(self.control("libmsgbus0", "shlibs"), f"libmsgbus 0 libmsgbus0 (>= {version})\n")
        self.assertIn("ldconfig", self.control("libmsgbus0", "triggers"))

    def test_the_symbols_are_those_of_the_library(self):
        self.unpack("libmsgbus0")
        listed = re.findall(r"^ (\S+)@MSGBUS_0 ", self.control("libmsgbus0", "symbols"), re.MULTILINE)
        shown = run("nm", "-D", "--defined-only", find(self.path("root"), "libmsgbus.so.0.*"))
        exported = {line.split()[-1].partition("@")[0] for line in shown.splitlines()}
        self.assertEqual(set(listed), exported)

    def test_each_has_a_copyright_a_changelog_and_its_pages(self):
        self.unpack()
        for name in self.packages:
            for file in ("copyright", "changelog.gz"):
                self.assertTrue(os.path.isfile(self.path(f"root/usr/share/doc/{name}/{file}")), (name, file))
        for page in ("man1/msgbus.1.gz", "man1/msgbusd.1.gz"):
            self.assertIn(".TH ", run("zcat", self.path(f"root/usr/share/man/{page}")))
        for file in ("bash-completion/completions/msgbus", "zsh/vendor-completions/_msgbus",
                     "fish/vendor_completions.d/msgbus.fish"):
            with open(self.path(f"root/usr/share/{file}"), encoding="utf-8") as script:
                self.assertIn("msgbus", script.read())


if __name__ == "__main__":
    unittest.main()
