#!/usr/bin/env python3
"""Tests Tavrin's installed package the way an application uses it. Run by ctest (one call per
test); each call writes a GoogleTest-style report to --results so that the run's summary counts it.

  install  installs a build (with --strip) into a fresh folder, moves it to the prefix and checks
           what landed there
  run      configures, builds and runs a separate CMake project against the prefix (installed
           first when it has install rules); the project's executable is named after its
           folder, must exit with 0, and its output must match every line (a regular
           expression) of the folder's expected-output.txt; the lines of an arguments.txt, if
           the folder has one, are its command-line arguments
  reject   configures a project against the prefix and expects find_package to refuse, with a
           message that contains --expect (compared with runs of blanks made one)
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import time
from xml.sax.saxutils import quoteattr

CONFIGURE_TIMEOUT = 180
BUILD_TIMEOUT = 300
RUN_TIMEOUT = 120
TOOLCHAINS = {"x86": "toolchain-mingw-i686.cmake", "x64": "toolchain-mingw-x86_64.cmake"}


class Failure(Exception):
    pass


def run(command, timeout, cwd=None):
    """Runs a command with its output merged; returns (exit code, output as text)."""
    print("$ " + " ".join(command), flush=True)
    try:
        done = subprocess.run(command, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              stdin=subprocess.DEVNULL, timeout=timeout)
    except subprocess.TimeoutExpired as e:
        raise Failure(f"{os.path.basename(command[0])} did not finish within {timeout} s") from e
    return done.returncode, decode(done.stdout)


def run_program(command, cwd):
    """Runs a Windows program; returns (exit code, its output as text without colour escapes).
    Its two streams are read apart: each may be UTF-16 (the library's console) or narrow."""
    print("$ " + " ".join(command), flush=True)
    env = dict(os.environ, WINEDEBUG=os.environ.get("WINEDEBUG", "-all"))
    try:
        done = subprocess.run(command, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              stdin=subprocess.DEVNULL, timeout=RUN_TIMEOUT, env=env)
    except subprocess.TimeoutExpired as e:
        raise Failure(f"{os.path.basename(command[-1])} did not finish within {RUN_TIMEOUT} s") from e
    output = decode(done.stdout) + "\n" + decode(done.stderr)
    return done.returncode, re.sub(r"\x1b\[[0-9;]*m", "", output).replace("\r\n", "\n")


def decode(data):
    # The library's console writes UTF-16 to redirected output; everything else here is UTF-8.
    if b"\0" in data:
        return data.decode("utf-16-le", errors="replace")
    return data.decode("utf-8", errors="replace")


def check(command, timeout, what, cwd=None):
    code, output = run(command, timeout, cwd)
    print(output, flush=True)
    if code != 0:
        raise Failure(f"{what} failed (exit code {code})")
    return output


def configure(args, arch, extra):
    toolchain = os.path.join(args.prefix, "share", "Tavrin", "cmake", TOOLCHAINS[arch])
    shutil.rmtree(args.work, ignore_errors=True)
    command = ["cmake", "-S", args.source, "-B", args.work, "-G", "Ninja",
               f"-DCMAKE_TOOLCHAIN_FILE={toolchain}", f"-DCMAKE_PREFIX_PATH={args.prefix}"]
    if shutil.which("ccache"):
        command.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
    return run(command + extra, CONFIGURE_TIMEOUT)


def installed_files(prefix):
    for folder, _, files in os.walk(prefix):
        for name in files:
            yield os.path.relpath(os.path.join(folder, name), prefix).replace(os.sep, "/")


def do_install(args):
    # Installed elsewhere and then moved to the prefix: the package must not depend on where it
    # was installed.
    staging = args.prefix + ".staging"
    for folder in (args.prefix, staging):
        shutil.rmtree(folder, ignore_errors=True)
    check(["cmake", "--install", args.build, "--prefix", staging, "--strip"], BUILD_TIMEOUT, "cmake --install")
    os.rename(staging, args.prefix)
    files = set(installed_files(args.prefix))
    required = ["bin/Tavrin.dll", "bin/DATA/Win32Errors.txt", "bin/libstdc++-6.dll", "bin/libwinpthread-1.dll",
                "lib/Tavrin.lib", "include/tavrin/core/config.h", "include/tavrin/core/version.h",
                "include/tavrin-boost/boost/shared_ptr.hpp", "include/tavrin-boost/LICENSE_1_0.txt",
                "lib/cmake/Tavrin/TavrinConfig.cmake", "lib/cmake/Tavrin/TavrinConfigVersion.cmake",
                "lib/cmake/Tavrin/TavrinTargets.cmake", "share/doc/Tavrin/LICENSE",
                "share/doc/Tavrin/third-party/gcc-runtime.copyright.txt",
                "share/doc/Tavrin/third-party/mingw-w64-runtime.copyright.txt",
                "share/Tavrin/cmake/mingw-common.cmake", "share/Tavrin/cmake/" + TOOLCHAINS[args.arch]]
    missing = [f for f in required if f not in files]
    if missing:
        raise Failure("missing from the package: " + ", ".join(missing))
    stray = sorted(f for f in files if f.startswith("include/")
                   and not f.startswith(("include/tavrin/", "include/tavrin-boost/")))
    if stray:
        raise Failure("headers outside the package's own folders: " + ", ".join(stray))

    # Stripped: no DWARF sections left in any DLL.
    for dll in sorted(f for f in files if f.endswith(".dll")):
        sections = check([args.objdump, "-h", os.path.join(args.prefix, dll)], RUN_TIMEOUT, "objdump")
        if ".debug_" in sections:
            raise Failure(f"{dll} is installed with debug information")
        size = os.path.getsize(os.path.join(args.prefix, dll))
        print(f"{dll}: {size} bytes")

    # Relocatable: the package's CMake files name no folder of the build machine.
    for name in sorted(f for f in files if f.startswith("lib/cmake/")):
        with open(os.path.join(args.prefix, name), encoding="utf-8") as f:
            text = f.read()
        for folder in (args.build, args.source, staging):
            if os.path.abspath(folder) in text:
                raise Failure(f"{name} names the folder {folder}")
    print(f"{len(files)} files installed in {args.prefix}")


def do_run(args):
    name = os.path.basename(os.path.normpath(args.source))
    with open(os.path.join(args.source, "expected-output.txt"), encoding="utf-8") as f:
        patterns = [line.rstrip("\n") for line in f if line.strip()]
    code, output = configure(args, args.arch, args.cmake_args)
    print(output, flush=True)
    if code != 0:
        raise Failure(f"configuring {name} failed (exit code {code})")
    check(["cmake", "--build", args.work], BUILD_TIMEOUT, f"building {name}")

    # A project with install rules is run from where it installs itself (what it would ship),
    # any other from its build folder.
    installed = os.path.join(args.work, "installed")
    check(["cmake", "--install", args.work, "--prefix", installed], BUILD_TIMEOUT, f"installing {name}")
    exe = os.path.join(installed, name + ".exe")
    if not os.path.isfile(exe):
        exe = os.path.join(args.work, name + ".exe")
    started = time.monotonic()
    # An example that needs arguments (a port to open, say) lists them in arguments.txt, one a line.
    arguments = []
    arguments_file = os.path.join(args.source, "arguments.txt")
    if os.path.isfile(arguments_file):
        with open(arguments_file, encoding="utf-8") as f:
            arguments = [line.strip() for line in f if line.strip()]
    code, output = run_program([args.wine, exe] + arguments, os.path.dirname(exe))
    print(output, flush=True)
    print(f"{name}.exe ran for {time.monotonic() - started:.1f} s and exited with {code}")
    if code != 0:
        raise Failure(f"{name}.exe exited with {code}")
    unmatched = [p for p in patterns if not re.search(p, output, re.MULTILINE)]
    if unmatched:
        raise Failure(f"{name}.exe printed nothing matching: " + " | ".join(unmatched))


def do_reject(args):
    code, output = configure(args, args.arch, args.cmake_args)
    print(output, flush=True)
    if code == 0:
        raise Failure("find_package accepted the package")
    if args.expect not in " ".join(output.split()):
        raise Failure(f"the refusal does not say \"{args.expect}\"")


def write_report(args, failure):
    os.makedirs(args.results, exist_ok=True)
    group, _, case = args.name.partition(".")
    body = f"<failure message={quoteattr(failure)}/>" if failure else ""
    with open(os.path.join(args.results, args.name + ".xml"), "w", encoding="utf-8") as f:
        f.write('<?xml version="1.0" encoding="UTF-8"?>\n'
                f'<testsuites tests="1" failures="{1 if failure else 0}">'
                f'<testsuite name={quoteattr(group)} tests="1" failures="{1 if failure else 0}">'
                f'<testcase name={quoteattr(case or group)} classname={quoteattr(group)}>{body}</testcase>'
                '</testsuite></testsuites>\n')


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("action", choices=["install", "run", "reject"])
    parser.add_argument("--name", required=True, help="test name; its report is <results>/<name>.xml")
    parser.add_argument("--results", required=True)
    parser.add_argument("--prefix", required=True, help="installation prefix of the package")
    parser.add_argument("--arch", choices=sorted(TOOLCHAINS), required=True, help="width of the consumer")
    parser.add_argument("--build", help="install: the build folder")
    parser.add_argument("--source", help="install: the source tree; run, reject: the project")
    parser.add_argument("--objdump", help="install: objdump of the toolchain")
    parser.add_argument("--work", help="run, reject: the project's build folder (made afresh)")
    parser.add_argument("--wine", default="wine64", help="run: the program that runs Windows executables")
    parser.add_argument("--expect", help="reject: text the refusal must contain")
    argv = sys.argv[1:]
    # Arguments after "--" are extra arguments for configuring the project (run, reject).
    cmake_args = argv[argv.index("--") + 1:] if "--" in argv else []
    args = parser.parse_args(argv[:argv.index("--")] if "--" in argv else argv)
    args.cmake_args = cmake_args

    failure = None
    try:
        {"install": do_install, "run": do_run, "reject": do_reject}[args.action](args)
    except Failure as e:
        failure = str(e)
    write_report(args, failure)
    print(f"{args.name}: " + (f"FAILED: {failure}" if failure else "passed"))
    return 1 if failure else 0


if __name__ == "__main__":
    sys.exit(main())
