#!/usr/bin/env python3
"""What the library costs a process, also on the device, beside a program that is linked to libdbus alone.

The costs are the size of the library, the memory of an idle process with a connection to the bus, and the time to load the
library. Resident memory has the pages of files, which processes share, and the private pages of the process. If a program
runs in an emulator, only the pages of its own address space count. Load times are times of whole processes, which are
started in turns.
"""

import argparse
import os
import pathlib
import re
import shutil
import statistics
import subprocess
import tempfile
import time

GUEST = 0x10000000000  # where the emulator puts the program's address space


def build(compiler, build_folder, folder, pkg_config):
    """The programs, stripped, and the stripped library in the same folder."""
    source = pathlib.Path(__file__).resolve().parent
    library = folder / "libzarip.so"
    shutil.copy(build_folder / "libzarip.so", library)
    flags = ["-O2", "-std=c++17", "-s"]
    subprocess.run([compiler, *flags, source / "idle/zarip.cpp", f"-I{source.parent}/include",
                    f"-I{build_folder}/generated/include", f"-L{folder}", "-lzarip", "-Wl,-rpath,$ORIGIN",
                    "-Wl,--allow-shlib-undefined", "-pthread", *pkg_config, "-o", folder / "zarip"], check=True)
    # As a program in C would be, and as one in C++, which loads the library of its language.
    for name, needed in (("libdbus", "--as-needed"), ("libdbus, in C++", "--no-as-needed")):
        subprocess.run([compiler, *flags, f"-Wl,{needed}", source / "idle/libdbus.cpp", *pkg_config, "-o",
                        folder / name], check=True)
    subprocess.run([compiler.replace("g++", "strip"), library], check=True)
    return library


def sections(compiler, library):
    output = subprocess.run([compiler.replace("g++", "size"), library], check=True, capture_output=True, text=True).stdout
    text, data = output.splitlines()[1].split()[:2]
    return int(text), int(data)


def resident(command):
    """KiB of files and KiB of its own, by file name."""
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as process:
        if process.stdout.readline() != "connected\n":
            raise SystemExit(f"{command[-1]} has no connection")
        shared = own = 0
        guest = len(command) > 1
        counts = False
        for line in pathlib.Path(f"/proc/{process.pid}/smaps").read_text().splitlines():
            mapping = re.match(r"([0-9a-f]+)-[0-9a-f]+ ", line)
            if mapping:
                counts = not guest or GUEST <= int(mapping[1], 16) < GUEST + 2**32
            elif counts and line.startswith("Rss:"):
                shared += int(line.split()[1])
            elif counts and line.startswith("Anonymous:"):
                shared -= int(line.split()[1])
                own += int(line.split()[1])
        process.stdin.close()
    return shared, own


def load_time(programs, rounds):
    times = {program: [] for program in programs}
    for _ in range(rounds):
        for program in programs:
            begin = time.perf_counter()
            os.waitpid(os.posix_spawn(program, [program, "end"], os.environ), 0)
            times[program].append(time.perf_counter() - begin)
    return [statistics.median(times[program]) * 1e3 for program in programs]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build_folder", type=pathlib.Path)
    parser.add_argument("--sysroot", help="of the device, whose build it is; the programs run in an emulator")
    parser.add_argument("--quick", action="store_true")
    arguments = parser.parse_args()
    compiler, prefix, environment = "g++", [], dict(os.environ)
    if arguments.sysroot:
        compiler = "arm-linux-gnueabihf-g++"
        prefix = ["qemu-arm-static", "-B", hex(GUEST), "-L", arguments.sysroot]
        environment["PKG_CONFIG_SYSROOT_DIR"] = arguments.sysroot
        environment["PKG_CONFIG_LIBDIR"] = f"{arguments.sysroot}/usr/lib/arm-linux-gnueabihf/pkgconfig"
    pkg_config = subprocess.run(["pkg-config", "--cflags", "--libs", "dbus-1"], env=environment, check=True,
                                capture_output=True, text=True).stdout.split()
    if arguments.sysroot:
        pkg_config.append(f"--sysroot={arguments.sysroot}")

    with tempfile.TemporaryDirectory(prefix="zarip-bench-") as name:
        folder = pathlib.Path(name)
        library = build(compiler, arguments.build_folder.resolve(), folder, pkg_config)
        text, data = sections(compiler, library)
        print(f"libzarip.so, stripped: text {text / 1024:.0f} KiB, data {data / 1024:.0f} KiB, "
              f"file {library.stat().st_size / 1024:.0f} KiB")

        daemon = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--nosyslog", "--print-address",
                                   f"--address=unix:path={folder}/bus"], stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL, text=True)
        try:
            os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = daemon.stdout.readline().strip()
            print(f"{'idle process, KiB resident':32}{'of files':>10}{'its own':>10}{'together':>10}")
            for program in ("libdbus", "libdbus, in C++", "zarip"):
                shared, own = resident([*prefix, str(folder / program)])
                print(f"  {program:30}{shared:10}{own:10}{shared + own:10}")
        finally:
            daemon.terminate()
            daemon.wait()

        if not arguments.sysroot:
            other, own = load_time([str(folder / "libdbus"), str(folder / "zarip")], 50 if arguments.quick else 400)
            print(f"loaded and ended, ms: libdbus {other:.2f}, zarip {own:.2f}, {own - other:.2f} more")


if __name__ == "__main__":
    main()
