#!/usr/bin/env python3
"""Times the library beside raw OpenSSL and the stock tools, in one run, and
prints Markdown. Runs inside the simulated BMC; see `./dev bench`.

Arguments: the build directory, the directory of the test keys, a directory
for the input on a file system with 6 GiB of room.
"""

import json
import os
import shutil
import statistics
import subprocess
import sys
import time

build, keys, work = (os.path.abspath(path) for path in sys.argv[1:4])
VELMORA = os.path.join(build, "tools/velmora/velmora")
PACK = os.path.join(build, "tools/velmora-pack/velmora-pack")
BENCH = os.path.join(build, "benchmarks/velmora-bench")
ROOT_CA = "/var/run/obmcupdate/OpenBMCSecureBootRootCA.pem"
MIB = 1 << 20
REPETITIONS = 7
MAX_SECONDS_OF_LOG = 2


def path(*names):
    return os.path.join(work, *names)


def run(*command):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)


def measured(*command):
    """Seconds and peak resident bytes of one run of a command."""
    start = time.perf_counter()
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    if status != 0:
        sys.exit(f"bench: {' '.join(command)} failed")
    return time.perf_counter() - start, usage.ru_maxrss * 1024


def drop(name):
    """Has the kernel forget what it keeps of a file."""
    with open(name, "rb") as file:
        os.fsync(file.fileno())
        os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)


def medians(commands, cold=None):
    """Medians over interleaved runs, one (seconds, bytes) a command; with the
    file `cold` out of the page cache each time."""
    runs = [[] for _ in commands]
    for _ in range(REPETITIONS):
        for command, results in zip(commands, runs):
            if cold is not None:
                drop(cold)
            results.append(measured(*command))
    return [tuple(map(statistics.median, zip(*results))) for results in runs]


def write(name, size):
    block = os.urandom(MIB)
    with open(path(name), "wb") as file:
        for _ in range(size // MIB):
            file.write(block)


def write_files(name, count, size=1024):
    os.mkdir(path(name))
    for i in range(count):
        with open(path(name, f"{i:05}"), "wb") as file:
            file.write(i.to_bytes(4, "little") * (size // 4))


def package(payload, output):
    """The command that makes a package for the simulated BMC."""
    with open(f"{keys}/fingerprint", encoding="ascii") as file:
        fingerprint = file.read().strip()
    return [PACK, "package", "--payload", path(payload), "--model", "1",
            "--version", "1", "--system-id", "0A1B", "--gpg-home",
            f"{keys}/gnupg", "--key", fingerprint, "--force", "-o",
            path(output)]


def make_input():
    write("big", 512 * MIB)
    write_files("many", 10000)
    run(PACK, "image", path("big"), "--key", f"{keys}/image-signer.pem",
        "-o", path("image"))
    run(PACK, "manifest", "-o", path("manifest"))
    run(PACK, "payload", path("big"), "--chain", f"{keys}/chain.pem", "--key",
        f"{keys}/payload-signer.pem", "--alg", "PS384", "-o", path("payload"))
    write("small", MIB)
    run(*package("small", "package.zip"))
    write_files("release", 200, 1500000)
    os.mkdir(path("package"))
    run(VELMORA, "unpack", path("package.zip"), path("package"))
    # What `openssl dgst -verify` is given: the signed range, signature, key.
    size = os.path.getsize(path("payload")) - 51712
    shutil.copyfile(path("payload"), path("range"))
    with open(path("range"), "r+b") as file:
        file.seek(size)
        signature = file.read(512)
        file.truncate(size)
    with open(path("signature"), "wb") as file:
        file.write(signature)
    with open(path("key.pem"), "wb") as file:
        subprocess.run(["openssl", "x509", "-in", f"{keys}/chain.pem",
                        "-pubkey", "-noout"], check=True, stdout=file)


def library_times():
    """Medians in milliseconds by name. What forks runs in a process of its
    own, since a fork copies the tables of the memory that the others hold."""
    environment = dict(os.environ, VELMORA_BENCH_INPUT=work)
    times = {}
    for names in ("digest|image|slot|composite", "validation|metadata|model"):
        output = subprocess.run(
            [BENCH, f"--benchmark_filter={names}",
             f"--benchmark_repetitions={REPETITIONS}",
             "--benchmark_enable_random_interleaving=true",
             "--benchmark_format=json", "--benchmark_min_time=0.05"],
            check=True, env=environment, capture_output=True).stdout
        times |= {entry["run_name"].removesuffix("/real_time"):
                  entry["real_time"]
                  for entry in json.loads(output)["benchmarks"]
                  if entry.get("aggregate_name") == "median"}
    return times


def payload_command():
    """The root CA is consumed by each verification."""
    return ["sh", "-c", f"cp {keys}/root-ca.pem {ROOT_CA} && "
            f"exec {VELMORA} verify-payload {path('payload')}"]


def show(title, rows):
    print(f"\n{title}\n")
    print("| " + " | ".join(rows[0]) + " |")
    print("|---" + "|---:" * (len(rows[0]) - 1) + "|")
    for row in rows[1:]:
        print("| " + " | ".join(row) + " |")


def mib(size):
    return f"{size / MIB:.1f} MiB"


def side_by_side():
    times = library_times()
    gpg = ["gpg", "--homedir", "/etc/gpg/secupkey/.gnupg", "--verify",
           path("package/package.xml.sign"), path("package/package.xml")]
    stock = medians([
        ["sha256sum", path("big")],
        ["openssl", "dgst", "-sha256", path("big")],
        ["openssl", "dgst", "-sha384", "-sigopt", "rsa_padding_mode:pss",
         "-verify", path("key.pem"), "-signature", path("signature"),
         path("range")],
        gpg,
        [VELMORA, "digest", path("big")],
        [VELMORA, "verify-image", path("image"), path("manifest")],
        payload_command(),
        [VELMORA, "validate", path("package")],
        [VELMORA, "digest", path("many")],
        ["sh", "-c", f"cd {path('many')} && sha256sum * | cut -c1-64 | "
         "tr -d '\\n' | sha256sum"],
    ])
    cold, cold_dgst = medians(
        [[VELMORA, "digest", path("big")],
         ["openssl", "dgst", "-sha256", path("big")]], path("big"))
    (sha256sum, dgst, dgst_verify, verify, digest, image, payload, validate,
     composite, sums) = stock

    def row(name, key, tool, tool_run, peak):
        library = times[f"{key}/library"]
        raw = times.get(f"{key}/raw")
        return [name, f"{library:.2f} ms",
                f"{raw / library:.2f}" if raw else "",
                tool, f"{tool_run[0] * 1000 / library:.2f}" if tool else "",
                mib(peak[1])]

    rows = [["operation", "median", "rate to raw", "stock tool",
             "rate to tool", "peak of velmora"],
            row("file digest, 512 MiB", "file digest", "sha256sum", sha256sum,
                digest),
            row("file digest, 512 MiB", "file digest", "openssl dgst", dgst,
                digest),
            ["file digest, 512 MiB, cold", f"{cold[0] * 1000:.2f} ms", "",
             "openssl dgst", f"{cold_dgst[0] / cold[0]:.2f}", mib(cold[1])],
            row("composite, 10,000 files of 1 KiB", "composite",
                "sha256sum", sums, composite),
            row("image, 512 MiB", "image", "", None, image),
            row("slot signature, 512 MiB", "slot", "openssl dgst -verify",
                dgst_verify, payload),
            row("package, 1 MiB", "validation", "gpg --verify", verify,
                validate)]
    show("Raw is the digest over the same bytes in memory, or the bare loop of "
         "open, read and digest. A rate over 1 is faster.", rows)
    print(f"\n- A package costs {times['validation/library'] - verify[0] * 1000:.1f}"
          " ms more than `gpg --verify` alone.")
    print(f"- A metadata block: {times['metadata/library'] * 1000:.1f} us.")
    print(f"- A model query: {times['model/library'] / times['model/raw']:.2f}"
          " times the bare call.")


def whole_packages():
    """Making and validating, beside the stock tools that do as much."""
    release, apart = path("release.zip"), path("apart")
    make, store, validate, stock = medians([
        package("release", "release.zip"),
        ["sh", "-c", f"rm -f {path('stored.zip')} && cd {path('release')} && "
         f"exec zip -q -0 {path('stored.zip')} *"],
        [VELMORA, "validate", release],
        ["sh", "-c", f"unzip -q {release} -d {apart} && "
         "gpg --homedir /etc/gpg/secupkey/.gnupg "
         f"--verify {apart}/package.xml.sign {apart}/package.xml && "
         f"sha256sum {apart}/payload/* && rm -r {apart}"],
    ])
    show("A package of 200 files and 300 MB. A share over 1 is slower.", [
        ["operation", "median", "stock tools", "share of theirs"],
        ["making", f"{make[0]:.2f} s", "zip -0", f"{make[0] / store[0]:.2f}"],
        ["validating", f"{validate[0]:.2f} s", "unzip, gpg, sha256sum",
         f"{validate[0] / stock[0]:.2f}"]])


def growth():
    rows = [["file", "median", "peak"]]
    for size in (1, 16, 256, 2048):
        write("growing", size * MIB)
        ((seconds, peak),) = medians([[VELMORA, "digest", path("growing")]])
        rows.append([f"{size} MiB", f"{seconds * 1000:.1f} ms", mib(peak)])
        os.remove(path("growing"))
    show("How `velmora digest` grows with a file's size:", rows)
    rows = [["files of 1 KiB", "median", "peak"]]
    for count in (1, 10, 100, 1000, 10000):
        write_files("growing", count)
        ((seconds, peak),) = medians([[VELMORA, "digest", path("growing")]])
        rows.append([f"{count:,}", f"{seconds * 1000:.1f} ms", mib(peak)])
        shutil.rmtree(path("growing"))
    show("How it grows with the number of files:", rows)


def log():
    """A package's log over and over, as journalctl shows it."""
    entry = subprocess.run([VELMORA, "-v", "validate", path("package")],
                           stderr=subprocess.PIPE, stdout=subprocess.DEVNULL,
                           text=True).stderr.splitlines()
    with open(path("log"), "w") as file:
        for number in range(1000000):
            file.write(f"Nov 25 04:10:31 bmc updated[{number // 100}]: "
                       f"{entry[number % len(entry)]}\n")
    ((seconds, peak),) = medians([[VELMORA, "explain", path("log")]])
    met = seconds < MAX_SECONDS_OF_LOG
    print(f"\n`velmora explain`, a million lines: {seconds:.2f} s, peak "
          f"{mib(peak)}; the limit of {MAX_SECONDS_OF_LOG} s is "
          f"{'met' if met else 'NOT MET'}.")
    return met


make_input()
side_by_side()
whole_packages()
growth()
sys.exit(not log())
