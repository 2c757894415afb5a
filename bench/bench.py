#!/usr/bin/python3
"""pelvane next to the ffmpeg tool on the same local sources, in the same run.

Contestants, side by side: Debian's ffmpeg tool; pelvane built against the
system's shared FFmpeg (--build DIR, first); pelvane with the trimmed FFmpeg 7.1
linked in statically (--build DIR, second); and, when given (--ffmpeg7 PATH),
the ffmpeg tool built from the same trimmed 7.1 sources.

Measures, rotating the order of the contestants round by round, medians:
  - start-up: CPU and wall time from exec to the first byte of output, relaying
    a local HTTP file; and exec to exit of `--help` / `-version`, beside two
    floors (a program linking libc only, and one linking libcurl too);
  - time to first byte from a live RTMP source (all contestants started together);
  - live cost: an RTMP source in real time (nginx + RTMP module): CPU per stream
    over 10-s runs (1 and 40 relays at once) and 60-s runs (start-up included),
    steady state, peak RSS, Pss and private memory per process, and where the
    memory of one process sits (/proc/PID/smaps);
  - the Google Benchmark micro-benchmarks (pelvane_bench), when built.
Writes a Markdown report and a PNG plot (gnuplot) of CPU per stream.

Usage: bench.py --build DIR [--build DIR] [--ffmpeg7 PATH] [--quick] [--out-dir DIR]
                [--only startup,ttfb,live,micro] [--report-from results.json]
BENCH_QUICK=1 in the environment is the same as --quick.
"""

import argparse
import datetime
import json
import os
import platform
import shutil
import signal
import statistics
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)


# ---------------------------------------------------------------- plan

class Plan:
    """How much to measure. The full plan takes about 15 minutes with four contestants."""

    def __init__(self, quick):
        self.quick = quick
        self.startup_rounds = 3 if quick else 7
        self.help_rounds = 5 if quick else 9
        self.ttfb_rounds = 2 if quick else 5
        # (seconds, relays at once, rounds); the 60-s runs start one relay of every
        # contestant at the same time, the others run one contestant at a time.
        self.live_runs = [(10.0, 1, 1), (10.0, 40, 1)] if quick else \
            [(10.0, 1, 3), (10.0, 40, 2), (60.0, 1, 1)]
        self.steady_from = {10.0: 5.0, 60.0: 10.0}   # steady-state CPU is sampled from here to the end
        self.micro_min_time = 0.05 if quick else 0.5


# ---------------------------------------------------------------- media

def setup_environment(build):
    os.environ.setdefault('PELVANE_BIN', os.path.join(build, 'v2', 'pelvane'))
    os.environ.setdefault('PELVANE_WORK', os.path.join(build, 'bench-work'))
    os.environ.setdefault('PELVANE_MEDIA', os.path.join(REPO, 'build', 'media'))
    sys.path.insert(0, os.path.join(REPO, 'tests', 'integration'))


def register_bench_media(harness):
    # 60 s of 1280x720 H.264 at about 3.8 Mbit/s (noise keeps the encoder at its rate),
    # one key frame a second, + AAC 128 kbit/s: about 4.1 Mbit/s, 30 MB.
    harness.register_media('bench_4m_60s.ts', lambda out: (
        ['-f', 'lavfi', '-i', 'testsrc2=size=1280x720:rate=25,noise=alls=12:allf=t',
         '-f', 'lavfi', '-i', 'sine=frequency=440:sample_rate=48000', '-t', '60',
         '-c:v', 'libx264', '-preset', 'veryfast', '-b:v', '3800k', '-maxrate', '3800k',
         '-bufsize', '3800k', '-g', '25', '-keyint_min', '25', '-sc_threshold', '0',
         '-pix_fmt', 'yuv420p', '-c:a', 'aac', '-b:a', '128k', '-ac', '2', '-f', 'mpegts']))
    # The live source: 30 s looped, 1280x720 H.264 at about 1.9 Mbit/s + AAC, key frame every
    # second (the time to first byte waits for one), so 40 relays stay within 2 cores.
    harness.register_media('bench_live_2m.mkv', lambda out: (
        ['-f', 'lavfi', '-i', 'testsrc2=size=1280x720:rate=25,noise=alls=6:allf=t',
         '-f', 'lavfi', '-i', 'sine=frequency=440:sample_rate=48000', '-t', '30',
         '-c:v', 'libx264', '-preset', 'veryfast', '-b:v', '1900k', '-maxrate', '1900k',
         '-bufsize', '1900k', '-g', '25', '-keyint_min', '25', '-sc_threshold', '0',
         '-pix_fmt', 'yuv420p', '-c:a', 'aac', '-b:a', '128k', '-ac', '2']))


# ---------------------------------------------------------------- contestants

class Contestant:
    """One program under test: `kind` is 'ffmpeg' (the ffmpeg tool's command line) or
    'pelvane'; `key` names it in the raw results."""

    def __init__(self, key, label, kind, exe, library):
        self.key, self.label, self.kind, self.exe, self.library = key, label, kind, exe, library

    def argv(self, url):
        if self.kind == 'pelvane':
            return [self.exe, '--url', url]
        return [self.exe, '-hide_banner', '-nostdin', '-loglevel', 'error', '-i', url,
                '-map', '0:v:0', '-map', '0:a:0', '-c', 'copy', '-f', 'mpegts', 'pipe:1']

    def help_argv(self):
        return [self.exe, '--help'] if self.kind == 'pelvane' else [self.exe, '-hide_banner', '-version']


def libavformat_of(exe, build=None):
    """Which libavformat a program runs with: the shared object's file name, or
    'static <version>' from the CMake cache of a statically linked pelvane."""
    ldd = subprocess.run(['ldd', exe], capture_output=True, text=True).stdout
    lib = next((l.split('=>')[1].split()[0] for l in ldd.splitlines() if 'libavformat' in l), None)
    if lib:
        return os.path.basename(os.path.realpath(lib))
    version = '?'
    if build:
        try:
            with open(os.path.join(build, 'CMakeCache.txt')) as f:
                for line in f:
                    if line.startswith('FFMPEG_libavformat_VERSION:'):
                        version = line.split('=', 1)[1].strip()
        except OSError:
            pass
    else:
        r = subprocess.run([exe, '-version'], capture_output=True, text=True)
        version = next((l.split('/')[0].split(None, 1)[1].replace(' ', '') for l in r.stdout.splitlines()
                        if l.startswith('libavformat')), '?')
    return 'libavformat %s, static' % version


def shared_objects(exe):
    ldd = subprocess.run(['ldd', exe], capture_output=True, text=True).stdout
    return sum(1 for l in ldd.splitlines() if '.so' in l and 'linux-vdso' not in l)


def contestants(builds, ffmpeg7):
    out = [Contestant('ffmpeg', 'ffmpeg tool (Debian)', 'ffmpeg', shutil.which('ffmpeg') or 'ffmpeg', None)]
    if ffmpeg7:
        out.append(Contestant('ffmpeg7', 'ffmpeg tool, trimmed 7.1', 'ffmpeg', ffmpeg7, None))
    for b in builds:
        name = os.path.basename(b.rstrip('/'))
        exe = os.path.join(b, 'v2', 'pelvane')
        static = 'static' in libavformat_of(exe, b)
        out.append(Contestant(name, 'pelvane %s' % ('static 7.1' if static else name), 'pelvane', exe, b))
    return out


def rotated(items, round_no):
    k = round_no % len(items)
    return items[k:] + items[:k]


# ---------------------------------------------------------------- one measured process

_all_relays = set()
_all_lock = threading.Lock()


def task_runtime_ns(pid):
    """CPU time of all live threads of pid so far, in ns (scheduler accounting), or None."""
    total = 0
    try:
        for tid in os.listdir('/proc/%d/task' % pid):
            with open('/proc/%d/task/%s/schedstat' % (pid, tid)) as f:
                total += int(f.read().split()[0])
    except (OSError, ValueError, IndexError):
        return None
    return total


def vm_hwm_kib(pid):
    """Peak RSS of the process's own memory since its exec (VmHWM), in KiB, or None.

    wait4's ru_maxrss is not used for this: it also keeps the high-water mark of the memory
    the child had before exec, which is the harness's own (Python forks it)."""
    try:
        with open('/proc/%d/status' % pid) as f:
            for line in f:
                if line.startswith('VmHWM:'):
                    return int(line.split()[1])
    except (OSError, ValueError):
        pass
    return None


def memory_shares_kib(pid):
    """(Pss, private clean + dirty) of a live process in KiB, from smaps_rollup."""
    pss = private = None
    try:
        with open('/proc/%d/smaps_rollup' % pid) as f:
            for line in f:
                if line.startswith('Pss:'):
                    pss = int(line.split()[1])
                elif line.startswith('Private_Clean:') or line.startswith('Private_Dirty:'):
                    private = (private or 0) + int(line.split()[1])
    except (OSError, ValueError):
        pass
    return pss, private


def memory_map_kib(pid):
    """Rss, Pss and private KiB of a live process by what is mapped: each file's
    basename (the program, each shared library), [heap], [stack], and anonymous."""
    out = {}
    name = None
    try:
        with open('/proc/%d/smaps' % pid) as f:
            for line in f:
                head = line.split(None, 1)[0]
                if '-' in head and not head.endswith(':'):
                    fields = line.split()
                    name = os.path.basename(fields[5]) if len(fields) > 5 else '[anonymous]'
                    if name.startswith('[anon'):
                        name = '[anonymous]'
                    out.setdefault(name, [0, 0, 0])
                elif head in ('Rss:', 'Pss:', 'Private_Clean:', 'Private_Dirty:') and name:
                    v = int(line.split()[1])
                    i = {'Rss:': 0, 'Pss:': 1}.get(head, 2)
                    out[name][i] += v
    except (OSError, ValueError, IndexError):
        pass
    return out


class Relay:
    """One relay process with its standard output read and counted by a thread, its CPU
    time sampled at the first byte, and its resource use taken from wait4 at the end.
    The program is exec'd directly (no wrapper), so that its start-up cost is its own."""

    def __init__(self, contestant, argv, log_path):
        self.tool = contestant.key
        self.argv = argv
        self.bytes = 0
        self.first_byte = None      # seconds from start
        self.first_byte_cpu = None  # CPU seconds of the process at its first byte
        self.rusage = None
        self.status = None
        self.ended = None           # seconds from start
        self.samples = []           # (seconds from start, task run time ns)
        self.shares = (None, None)
        self.hwm_kib = None
        err = open(log_path, 'wb')
        self.started = time.monotonic()
        self.popen = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                      stderr=err, start_new_session=True, bufsize=0)
        err.close()
        self.pid = self.popen.pid
        with _all_lock:
            _all_relays.add(self)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        buf = bytearray(1 << 16)  # small: the harness's memory must stay below the relays'
        view = memoryview(buf)
        out = self.popen.stdout
        while True:
            try:
                n = out.readinto(view)
            except OSError:
                break
            if not n:
                break
            if self.first_byte is None:
                self.first_byte = time.monotonic() - self.started
                ns = task_runtime_ns(self.pid)
                self.first_byte_cpu = None if ns is None else ns / 1e9
            self.bytes += n

    def sample_hwm(self):
        if self.rusage is None:
            v = vm_hwm_kib(self.pid)
            if v is not None and (self.hwm_kib is None or v > self.hwm_kib):
                self.hwm_kib = v

    def sample(self):
        self.sample_hwm()
        ns = task_runtime_ns(self.pid)
        if ns is not None:
            self.samples.append((time.monotonic() - self.started, ns))

    def steady_cpu_rate(self):
        """CPU seconds per second between the first and the last sample."""
        if len(self.samples) < 2:
            return None
        (t0, c0), (t1, c1) = self.samples[0], self.samples[-1]
        return (c1 - c0) / 1e9 / (t1 - t0) if t1 > t0 else None

    def poll_exit(self):
        if self.rusage is not None:
            return True
        pid, status, ru = os.wait4(self.pid, os.WNOHANG)
        if pid == 0:
            return False
        self.ended = time.monotonic() - self.started
        self.rusage = ru
        self.status = os.waitstatus_to_exitcode(status)
        self.popen.returncode = self.status
        return True

    def wait(self, timeout):
        deadline = time.monotonic() + timeout
        while True:
            self.sample_hwm()
            if self.poll_exit():
                break
            if time.monotonic() >= deadline:
                return False
            time.sleep(0.005)
        self.reader.join(10)
        return True

    def signal(self, sig):
        if self.rusage is None:
            try:
                os.kill(self.pid, sig)
            except ProcessLookupError:
                pass

    def finish(self, timeout=10):
        """SIGINT (every contestant ends cleanly on it), then SIGKILL if it is still there."""
        self.signal(signal.SIGINT)
        if not self.wait(timeout):
            self.kill()

    def kill(self):
        try:
            os.killpg(self.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.wait(10)

    def close(self):
        if self.rusage is None:
            self.kill()
        try:
            self.popen.stdout.close()
        except OSError:
            pass
        with _all_lock:
            _all_relays.discard(self)

    @property
    def cpu(self):
        return self.rusage.ru_utime + self.rusage.ru_stime


def kill_all_relays():
    with _all_lock:
        relays = list(_all_relays)
    for r in relays:
        r.close()


def run_to_exit(argv):
    """(CPU s, wall s) of a program from exec to exit, its output discarded."""
    t0 = time.monotonic()
    p = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    _, _, ru = os.wait4(p.pid, 0)
    wall = time.monotonic() - t0
    p.returncode = 0
    return ru.ru_utime + ru.ru_stime, wall


# ---------------------------------------------------------------- measurements

class Bench:
    def __init__(self, plan, contestants, work):
        self.plan = plan
        self.contestants = contestants
        self.work = work
        self.counter = 0
        self.results = {'startup': [], 'help': [], 'ttfb': [], 'live': [], 'maps': {}}

    def start(self, c, url):
        self.counter += 1
        log_path = os.path.join(self.work, '%s-%03d.err' % (c.key, self.counter))
        return Relay(c, c.argv(url), log_path)

    def help(self, probes):
        """Exec to exit of `--help` (pelvane) or `-version` (the ffmpeg tool), and the floors."""
        runs = [(c.key, c.help_argv()) for c in self.contestants] + [(k, [p]) for k, p in probes]
        for rnd in range(self.plan.help_rounds):
            for key, argv in rotated(runs, rnd):
                cpu, wall = run_to_exit(argv)
                self.results['help'].append({'tool': key, 'round': rnd, 'cpu': cpu, 'wall': wall})
        log('help/version exec to exit: %d rounds' % self.plan.help_rounds)

    def startup(self, url):
        """Exec to the first byte of output, relaying a local HTTP file, one process at a time."""
        for rnd in range(self.plan.startup_rounds):
            for c in rotated(self.contestants, rnd):
                r = self.start(c, url)
                try:
                    deadline = time.monotonic() + 20
                    while r.first_byte is None and time.monotonic() < deadline and not r.poll_exit():
                        time.sleep(0.001)
                    if r.first_byte is None:
                        raise RuntimeError('%s wrote nothing within 20 s from %s' % (c.key, url))
                    r.finish()
                    self.results['startup'].append({'tool': c.key, 'round': rnd, 'wall': r.first_byte,
                                                    'cpu': r.first_byte_cpu})
                finally:
                    r.close()
                log('startup %-8s round %d: first byte %.3f s, CPU %.3f s' %
                    (c.key, rnd, r.first_byte, r.first_byte_cpu or -1))

    def ttfb_rtmp(self, url):
        """All contestants started together in each round, so that all meet the live source at
        the same point (the first byte waits for the source's next key frame)."""
        for rnd in range(self.plan.ttfb_rounds):
            group = {}
            try:
                for c in rotated(self.contestants, rnd):
                    group[c.key] = self.start(c, url)
                deadline = time.monotonic() + 20
                while time.monotonic() < deadline:
                    if all(r.first_byte is not None or r.poll_exit() for r in group.values()):
                        break
                    time.sleep(0.002)
                for r in group.values():
                    r.finish()
                for key, r in group.items():
                    if r.first_byte is None:
                        raise RuntimeError('%s wrote nothing within 20 s from %s' % (key, url))
                    self.results['ttfb'].append({'tool': key, 'round': rnd, 'ttfb': r.first_byte})
            finally:
                for r in group.values():
                    r.close()
            log('ttfb rtmp round %d: %s' % (rnd, ', '.join('%s %.3f s' % (k, r.first_byte)
                                                            for k, r in group.items())))
            time.sleep(0.3)

    def live(self, url, seconds, relays, rounds):
        together = seconds >= 60
        for rnd in range(rounds):
            batches = [self.contestants] if together else [[c] for c in rotated(self.contestants, rnd)]
            for batch in batches:
                group = []
                try:
                    for _ in range(relays):
                        for c in batch:
                            group.append(self.start(c, url))
                    t0 = time.monotonic()
                    time.sleep(self.plan.steady_from[seconds])
                    for r in group:
                        r.sample()
                    time.sleep(max(0.0, seconds - (time.monotonic() - t0)))
                    for r in group:
                        r.sample()
                        r.shares = memory_shares_kib(r.pid)
                    if relays == 1 and rnd == 0 and seconds < 60:
                        for r in group:
                            self.results['maps'][r.tool] = memory_map_kib(r.pid)
                    for r in group:
                        r.signal(signal.SIGINT)
                    for r in group:
                        if not r.wait(15):
                            r.kill()
                    bad = [r for r in group if r.bytes == 0]
                    if bad:
                        raise RuntimeError('%d of %d %s relays wrote nothing (status %s)' %
                                           (len(bad), len(group), bad[0].tool, bad[0].status))
                    for r in group:
                        self.results['live'].append({
                            'tool': r.tool, 'seconds': seconds, 'relays': relays, 'round': rnd,
                            'cpu': r.cpu, 'lifetime': r.ended, 'steady': r.steady_cpu_rate(),
                            'maxrss_kib': r.hwm_kib, 'pss_kib': r.shares[0],
                            'private_kib': r.shares[1], 'bytes': r.bytes, 'ttfb': r.first_byte})
                finally:
                    for r in group:
                        r.close()
                for c in batch:
                    rs = [r for r in group if r.tool == c.key]
                    log('live %2.0f s %2d x %-8s round %d: %.2f ms CPU per stream-second' %
                        (seconds, relays, c.key, rnd, statistics.mean(r.cpu / r.ended for r in rs) * 1000))
                time.sleep(1.0)  # let nginx forget the players


def log(msg):
    sys.stderr.write('bench: %s\n' % msg)
    sys.stderr.flush()


# ---------------------------------------------------------------- micro-benchmarks

def run_micro(build, plan, work):
    exe = os.path.join(build, 'bench', 'pelvane_bench')
    if not os.path.exists(exe):
        log('no %s: micro-benchmarks skipped' % exe)
        return None
    out = os.path.join(work, 'micro.json')
    cmd = [exe, '--benchmark_out=' + out, '--benchmark_out_format=json',
           '--benchmark_min_time=%g' % plan.micro_min_time]
    log('micro-benchmarks: ' + ' '.join(cmd))
    r = subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, timeout=900)
    if r.returncode != 0:
        raise RuntimeError('pelvane_bench failed: ' + r.stderr[-2000:])
    with open(out) as f:
        return json.load(f)


# ---------------------------------------------------------------- machine

def machine_facts(cs):
    model = 'unknown'
    with open('/proc/cpuinfo') as f:
        for line in f:
            if line.startswith('model name'):
                model = line.split(':', 1)[1].strip()
                break
    ff_tool = subprocess.run(['ffmpeg', '-version'], capture_output=True, text=True).stdout.splitlines()[0]
    return {
        'cpu': model, 'cores': os.cpu_count(), 'kernel': platform.release(),
        'ffmpeg_tool': ff_tool.replace('Copyright', '').split(' (c)')[0].strip(),
        'contestants': [{'key': c.key, 'label': c.label, 'exe': c.exe,
                         'libavformat': libavformat_of(c.exe, c.library),
                         'shared_objects': shared_objects(c.exe),
                         'size_kib': os.path.getsize(c.exe) // 1024} for c in cs],
        'date': datetime.datetime.now(datetime.timezone.utc).strftime('%Y-%m-%d %H:%M UTC'),
        'load_before': os.getloadavg()[0],
    }


# ---------------------------------------------------------------- report

def med(values):
    values = [v for v in values if v is not None]
    return statistics.median(values) if values else None


def ratio(a, b):
    return a / b if a is not None and b else None


def fmt_num(v, number_format):
    return '-' if v is None else format(v, number_format)


def live_summary(results, key, seconds, relays):
    """Medians over rounds of the per-round means (CPU), and medians over processes (memory)."""
    rows = [r for r in results['live'] if r['tool'] == key and r['seconds'] == seconds and r['relays'] == relays]
    if not rows:
        return None
    by_round = {}
    for r in rows:
        by_round.setdefault(r['round'], []).append(r)
    return {
        'cpu_rate': med(statistics.mean(r['cpu'] / r['lifetime'] for r in rs) for rs in by_round.values()),
        'steady': med(statistics.mean(r['steady'] for r in rs if r['steady'] is not None)
                      for rs in by_round.values() if any(r['steady'] is not None for r in rs)),
        'maxrss': med(r['maxrss_kib'] for r in rows),
        'pss': med(r['pss_kib'] for r in rows),
        'private': med(r['private_kib'] for r in rows),
    }


def write_report(path, plot_name, results, machine, micro, plan):
    cs = machine['contestants']
    keys = [c['key'] for c in cs]
    label = {c['key']: c['label'] for c in cs}
    pel = [c['key'] for c in cs if c['key'] != 'ffmpeg']
    static = next((c['key'] for c in cs if c['label'].startswith('pelvane static')), None)
    L = []
    w = L.append
    w('# pelvane next to the ffmpeg tool')
    w('')
    w('Written by `make bench` (`bench/run.sh`, `bench/bench.py`)%s. Medians; ratios are to Debian\'s '
      'ffmpeg tool (below 1 is better than it).' % (' in quick mode (BENCH_QUICK=1)' if plan.quick else ''))
    w('')
    w('| machine | |')
    w('|---|---|')
    w('| CPU | %s, %d cores |' % (machine['cpu'], machine['cores']))
    w('| kernel | %s |' % machine['kernel'])
    w('| run | %s, load average %.2f before |' % (machine['date'], machine['load_before']))
    w('')
    if machine['load_before'] > machine['cores'] / 2:
        w('Taken on a loaded machine (other work shared its %d cores; load average %.1f before the run): '
          'wall times and time to first byte carry that load, CPU figures less so. Ratios between the '
          'contestants of the same run are what to compare.' % (machine['cores'], machine['load_before']))
        w('')
    w('| contestant | program | FFmpeg | shared objects loaded | program size KiB |')
    w('|---|---|---|---|---|')
    for c in cs:
        w('| %s | `%s` | %s | %d | %d |' % (c['label'], os.path.relpath(c['exe'], REPO) if c['exe'].startswith(REPO)
                                           else c['exe'], c['libavformat'], c['shared_objects'], c['size_kib']))
    w('')
    w('The ffmpeg tools run as `ffmpeg -hide_banner -nostdin -loglevel error -i URL -map 0:v:0 -map 0:a:0 '
      '-c copy -f mpegts pipe:1`, pelvane as `pelvane --url URL`; all write into a pipe that the harness '
      'reads, and the order of the contestants rotates round by round.')
    w('')

    def s(key, seconds, relays, field):
        x = live_summary(results, key, seconds, relays)
        return x[field] if x else None

    def startup_med(key, field):
        return med(r[field] for r in results['startup'] if r['tool'] == key)

    def ttfb_med(key):
        return med(r['ttfb'] for r in results['ttfb'] if r['tool'] == key)

    if static:
        w('## Targets for the static pelvane')
        w('')
        w('| target | static pelvane | ffmpeg tool | ratio | met |')
        w('|---|---|---|---|---|')
        rows = [
            ('start-up CPU ≤ 0.25 ×', startup_med(static, 'cpu'), startup_med('ffmpeg', 'cpu'), 1000, 'ms', 0.25),
            ('CPU per stream over a 10-s relay ≤ 0.7 ×', s(static, 10.0, 1, 'cpu_rate'),
             s('ffmpeg', 10.0, 1, 'cpu_rate'), 1000, 'ms/s', 0.7),
            ('peak RSS ≤ 0.3 ×', s(static, 10.0, 1, 'maxrss'), s('ffmpeg', 10.0, 1, 'maxrss'), 1 / 1024, 'MiB', 0.3),
            ('private memory per process at 40 relays ≤ 0.5 ×', s(static, 10.0, 40, 'private'),
             s('ffmpeg', 10.0, 40, 'private'), 1 / 1024, 'MiB', 0.5),
            ('time to first byte, RTMP: no worse', ttfb_med(static), ttfb_med('ffmpeg'), 1, 's', 1.0),
            ('time to first byte, HTTP ≤ 0.5 ×', startup_med(static, 'wall'), startup_med('ffmpeg', 'wall'),
             1, 's', 0.5),
        ]
        for name, a, b, scale, unit, limit in rows:
            rr = ratio(a, b)
            w('| %s | %s %s | %s %s | %s | %s |' % (
                name, fmt_num(None if a is None else a * scale, '.3f' if unit == 's' else '.1f'), unit,
                fmt_num(None if b is None else b * scale, '.3f' if unit == 's' else '.1f'), unit,
                fmt_num(rr, '.2f'), '-' if rr is None else ('yes' if rr <= limit else 'no')))
        w('')
        note = curl_share_note(results, static)
        if note:
            w(note)
            w('')

    head = '| measure | ' + ' | '.join(label[k] for k in keys) + ' | ' + \
        ' | '.join('%s / ffmpeg' % label[k].replace('pelvane ', '').replace('ffmpeg tool, ', '') for k in pel) + ' |'
    sep = '|---|' + '---|' * (len(keys) + len(pel))

    def row(name, values, number_format):
        base = values.get('ffmpeg')
        return '| %s | %s | %s |' % (name, ' | '.join(fmt_num(values.get(k), number_format) for k in keys),
                                     ' | '.join(fmt_num(ratio(values.get(k), base), '.2f') for k in pel))

    w('## Start-up')
    w('')
    w('Exec to the first byte on standard output, relaying a 4 Mbit/s MPEG-TS file from a local HTTP server, '
      'one process at a time (CPU = the process\'s scheduler run time when the harness saw the byte); '
      'and exec to exit of `pelvane --help` / `ffmpeg -version`. Floors, exec to exit: a program linking libc '
      'only %s ms CPU; + GnuTLS and zlib %s ms; + libcurl as well %s ms.' % tuple(
          fmt_num((med(r['cpu'] for r in results['help'] if r['tool'] == k) or 0) * 1000 or None, '.1f')
          for k in ('probe_libc', 'probe_tls', 'probe_curl')))
    w('')
    w(head)
    w(sep)
    w(row('CPU ms, exec to first byte (HTTP)', {k: (startup_med(k, 'cpu') or 0) * 1000 or None for k in keys}, '.1f'))
    w(row('wall ms, exec to first byte (HTTP)', {k: (startup_med(k, 'wall') or 0) * 1000 or None for k in keys}, '.1f'))
    for field, name in (('cpu', 'CPU ms, exec to exit of --help / -version'),
                        ('wall', 'wall ms, exec to exit of --help / -version')):
        w(row(name, {k: (med(r[field] for r in results['help'] if r['tool'] == k) or 0) * 1000 or None
                     for k in keys}, '.1f'))
    w('')

    w('## Time to first byte from a live RTMP source (key frame every second)')
    w('')
    w('All contestants started together in each round, so that all wait for the same key frame.')
    w('')
    w(head)
    w(sep)
    w(row('seconds, exec to first byte', {k: ttfb_med(k) for k in keys}, '.3f'))
    w('')

    w('## Live cost: RTMP source in real time (about 2 Mbit/s)')
    w('')
    w('CPU per stream = a process\'s user + system time (wait4) over its whole life, start-up and probing '
      'included; steady = scheduler run time from %s to the end. 10-s runs: one contestant at a time; 60-s '
      'runs: one relay of each contestant at once. Memory at the end of the 10-s runs: peak RSS (VmHWM since '
      'exec; shared library pages count in full), Pss and private (USS) pages from smaps_rollup.' %
      ', '.join('%.0f s (%.0f-s runs)' % (v, k) for k, v in sorted(plan.steady_from.items())))
    w('')
    w(head)
    w(sep)
    for seconds, relays, _ in plan.live_runs:
        tag = '%.0f-s run, %d relay%s' % (seconds, relays, '' if relays == 1 else 's')
        w(row('CPU ms/s per stream, %s' % tag,
              {k: None if s(k, seconds, relays, 'cpu_rate') is None else s(k, seconds, relays, 'cpu_rate') * 1000
               for k in keys}, '.2f'))
        w(row('steady CPU ms/s, %s' % tag,
              {k: None if s(k, seconds, relays, 'steady') is None else s(k, seconds, relays, 'steady') * 1000
               for k in keys}, '.2f'))
        if seconds < 60:
            for field, name in (('maxrss', 'peak RSS MiB'), ('pss', 'Pss MiB'), ('private', 'private MiB')):
                w(row('%s, %s' % (name, tag), {k: None if s(k, seconds, relays, field) is None
                                                else s(k, seconds, relays, field) / 1024 for k in keys}, '.1f'))
    w('')
    w('![CPU per stream](%s)' % plot_name)
    w('')

    maps = results.get('maps') or {}
    if maps:
        w('## Where the memory of one relay sits (10-s run, 1 relay, /proc/PID/smaps at the end)')
        w('')
        w('Rss / private KiB by mapping: the program itself, the libraries, the heap and anonymous memory '
          '(thread stacks, buffers). Libraries grouped: "FFmpeg" = libav*, libsw*, libpostproc; "libcurl tree" '
          '= the shared objects that linking libcurl adds to a program that links GnuTLS and zlib (what the '
          'static FFmpeg needs); the rest of the shared objects as "other libraries".')
        w('')
        groups = ['program', 'FFmpeg', 'libcurl tree', 'other libraries', '[heap]', '[anonymous]', '[stack] and rest']
        w('| mapping | ' + ' | '.join(label[k] for k in keys if k in maps) + ' |')
        w('|---|' + '---|' * sum(1 for k in keys if k in maps))
        grouped = {}
        for k in keys:
            if k not in maps:
                continue
            g = {x: [0, 0, 0, 0] for x in groups}
            exe = os.path.basename(next(c['exe'] for c in cs if c['key'] == k))
            for name, (rss, pss, priv) in maps[k].items():
                if name == exe:
                    grp = 'program'
                elif name.startswith(('libav', 'libsw', 'libpostproc')):
                    grp = 'FFmpeg'
                elif name in CURL_TREE:
                    grp = 'libcurl tree'
                elif '.so' in name:
                    grp = 'other libraries'
                elif name in ('[heap]', '[anonymous]'):
                    grp = name
                else:
                    grp = '[stack] and rest'
                g[grp][0] += rss
                g[grp][1] += priv
                if '.so' in name:
                    g[grp][3] += 1
            grouped[k] = g
        for grp in groups:
            w('| %s | %s |' % (grp, ' | '.join(
                '%d / %d%s' % (grouped[k][grp][0], grouped[k][grp][1],
                               (' (%d objects)' % grouped[k][grp][3]) if grouped[k][grp][3] else '')
                for k in keys if k in grouped)))
        w('')

    if micro:
        w('## Micro-benchmarks (Google Benchmark, `build/<dir>/bench/pelvane_bench`)')
        w('')
        w('Wall time and CPU time of the benchmark\'s thread per iteration; they differ where a pipe '
          'reader thread or a busy machine makes the writer wait.')
        w('')
        w('| benchmark | wall per iteration | CPU per iteration | throughput (wall) |')
        w('|---|---|---|---|')
        for b in micro.get('benchmarks', []):
            if b.get('run_type') == 'aggregate':
                continue
            t = b.get('real_time')
            c = b.get('cpu_time')
            unit = b.get('time_unit', 'ns')
            bps = b.get('bytes_per_second')
            ips = b.get('items_per_second')
            thr = ('%.2f GB/s' % (bps / 1e9)) if bps else (('%.1f M items/s' % (ips / 1e6)) if ips else '')
            w('| `%s` | %.1f %s | %.1f %s | %s |' % (b['name'], t, unit, c, unit, thr))
        w('')
    with open(path, 'w') as f:
        f.write('\n'.join(L))


def curl_share_note(results, static):
    """What libcurl's dependency tree costs the static pelvane at start-up and in resident memory,
    from the two start-up floors and the memory map; None without them."""
    def help_cpu(key):
        return med(r['cpu'] for r in results['help'] if r['tool'] == key)
    tls, curl, own = help_cpu('probe_tls'), help_cpu('probe_curl'), help_cpu(static)
    start = med(r['cpu'] for r in results['startup'] if r['tool'] == static)
    ff = med(r['cpu'] for r in results['startup'] if r['tool'] == 'ffmpeg')
    m = (results.get('maps') or {}).get(static)
    peak = live_summary(results, static, 10.0, 1)
    ff_peak = live_summary(results, 'ffmpeg', 10.0, 1)
    if None in (tls, curl, own, start, ff) or not m or not peak or not ff_peak or not CURL_TREE:
        return None
    curl_rss = sum(v[0] for k, v in m.items() if k in CURL_TREE)
    load = curl - tls
    return ('Where the static pelvane\'s remaining cost sits: loading libcurl\'s dependency tree (%d shared '
            'objects beyond GnuTLS and zlib) takes %.1f ms of CPU (a program linking GnuTLS, zlib and libcurl: '
            '%.1f ms from exec to exit, one linking GnuTLS and zlib only: %.1f ms), against %.1f ms for the whole of `pelvane --help` and %.1f ms to the first '
            'byte of an HTTP source; without it start-up would be about %.2f × the ffmpeg tool\'s. The same '
            'libraries hold %.1f MiB of the relay\'s resident memory; its peak less that would be about %.2f × '
            'the ffmpeg tool\'s.' % (
                len(CURL_TREE), load * 1000, curl * 1000, tls * 1000, own * 1000, start * 1000,
                (start - load) / ff, curl_rss / 1024, (peak['maxrss'] - curl_rss) / ff_peak['maxrss']))


# Shared objects that a program linking libcurl (Debian 12, OpenSSL flavour) loads only
# because of it, beyond GnuTLS and zlib; filled in by curl_tree() from the probes.
CURL_TREE = set()


def curl_tree(probe_curl, probe_tls):
    def libs(exe):
        ldd = subprocess.run(['ldd', exe], capture_output=True, text=True).stdout
        return {os.path.basename(os.path.realpath(l.split('=>')[1].split()[0])) for l in ldd.splitlines()
                if '=>' in l and '/' in l.split('=>')[1]}
    return libs(probe_curl) - libs(probe_tls)


def write_plot(path, results, plan, machine, work):
    if not shutil.which('gnuplot'):
        log('no gnuplot (Debian package gnuplot-nox): no plot')
        return
    cs = machine['contestants']
    runs = [(sec, n) for sec, n, _ in plan.live_runs]
    data = os.path.join(work, 'cpu_per_stream.dat')
    with open(data, 'w') as f:
        f.write('run %s\n' % ' '.join('"%s"' % c['label'] for c in cs))
        for sec, n in runs:
            for field, tag in (('cpu_rate', 'whole'), ('steady', 'steady')):
                vals = []
                for c in cs:
                    x = live_summary(results, c['key'], sec, n)
                    v = x[field] if x else None
                    vals.append('%.4f' % (v * 1000) if v is not None else '0')
                f.write('"%.0f s, %d, %s" %s\n' % (sec, n, tag, ' '.join(vals)))
    script = '\n'.join([
        'set terminal pngcairo size 1000,560 font "sans,10"' if _has_cairo() else 'set terminal png size 1000,560',
        "set output '%s'" % path,
        "set title 'CPU per relayed stream, RTMP source in real time (run length, relays at once; medians)'",
        "set ylabel 'CPU ms per second of stream'",
        'set style data histograms', 'set style histogram clustered gap 1', 'set style fill solid 0.8 border -1',
        'set yrange [0:*]', 'set key top right', 'set grid ytics', 'set xtics rotate by -20',
        'plot ' + ', '.join("'%s' using %d:xtic(1) title columnheader(%d)" % (data, i + 2, i + 2)
                            for i in range(len(cs))),
    ])
    r = subprocess.run(['gnuplot'], input=script, capture_output=True, text=True, timeout=60)
    if r.returncode != 0:
        log('gnuplot failed: ' + r.stderr)


def _has_cairo():
    r = subprocess.run(['gnuplot', '-e', 'set terminal'], capture_output=True, text=True, timeout=30)
    return 'pngcairo' in (r.stdout + r.stderr)


# ---------------------------------------------------------------- main

def main():
    ap = argparse.ArgumentParser(description='pelvane next to the ffmpeg tool on local sources.')
    ap.add_argument('--build', action='append', required=True,
                    help='build directory holding v2/pelvane (repeat: system FFmpeg first, then static)')
    ap.add_argument('--ffmpeg7', help='an ffmpeg tool built from the trimmed 7.1 sources (optional)')
    ap.add_argument('--quick', action='store_true', help='fewer rounds, shorter runs (also BENCH_QUICK=1)')
    ap.add_argument('--out-dir', help='where results.md and cpu_per_stream.png go (default: bench/, or '
                    '<first build>/bench-quick when quick)')
    ap.add_argument('--only', default='startup,ttfb,live,micro', help='comma-separated parts to run')
    ap.add_argument('--report-from', metavar='RESULTS_JSON',
                    help='measure nothing: write the report and plot again from a run\'s raw results.json')
    a = ap.parse_args()
    builds = [os.path.abspath(b) for b in a.build]
    quick = a.quick or os.environ.get('BENCH_QUICK', '') not in ('', '0')
    plan = Plan(quick)
    parts = set(a.only.split(','))
    probes = [(k, os.path.join(builds[0], 'bench', 'startup_' + k)) for k in ('probe_libc', 'probe_tls', 'probe_curl')]
    probes = [(k, p) for k, p in probes if os.path.exists(p)]
    if len(probes) == 3:
        CURL_TREE.update(curl_tree(probes[2][1], probes[1][1]))
    if a.report_from:
        with open(a.report_from) as f:
            raw = json.load(f)
        plan = Plan(raw.get('quick', quick))
        out_dir = a.out_dir or (os.path.join(builds[0], 'bench-quick') if plan.quick else HERE)
        os.makedirs(out_dir, exist_ok=True)
        work = os.path.dirname(os.path.abspath(a.report_from))
        write_plot(os.path.join(out_dir, 'cpu_per_stream.png'), raw['results'], plan, raw['machine'], work)
        write_report(os.path.join(out_dir, 'results.md'), 'cpu_per_stream.png', raw['results'], raw['machine'],
                     raw.get('micro'), plan)
        return

    setup_environment(builds[0])
    import harness
    import peers
    register_bench_media(harness)

    cs = contestants(builds, a.ffmpeg7)
    work = harness.scratch('bench')
    os.makedirs(work, exist_ok=True)
    out_dir = a.out_dir or (os.path.join(builds[0], 'bench-quick') if quick else HERE)
    os.makedirs(out_dir, exist_ok=True)
    out_md = os.path.join(out_dir, 'results.md')
    out_png = os.path.join(out_dir, 'cpu_per_stream.png')

    machine = machine_facts(cs)
    log('machine: %s' % json.dumps(machine))
    bench = Bench(plan, cs, work)
    t_begin = time.monotonic()
    micro = None
    try:
        file_4m = harness.media_path('bench_4m_60s.ts')
        live_media = harness.media_path('bench_live_2m.mkv')
        if 'startup' in parts:
            bench.help(probes)
            with peers.HttpPeer(os.path.dirname(file_4m)) as http:
                bench.startup(http.url(os.path.basename(file_4m)))
        if 'live' in parts or 'ttfb' in parts:
            with peers.RtmpPeer(media=live_media) as rtmp:
                time.sleep(1.0)
                if 'ttfb' in parts:
                    bench.ttfb_rtmp(rtmp.url)
                if 'live' in parts:
                    for seconds, relays, rounds in plan.live_runs:
                        bench.live(rtmp.url, seconds, relays, rounds)
        if 'micro' in parts:
            micro = run_micro(builds[0], plan, work)
    finally:
        kill_all_relays()
    with open(os.path.join(work, 'results.json'), 'w') as f:
        json.dump({'machine': machine, 'quick': plan.quick, 'results': bench.results, 'micro': micro}, f,
                  indent=1)
    write_plot(out_png, bench.results, plan, machine, work)
    write_report(out_md, os.path.basename(out_png), bench.results, machine, micro, plan)
    log('done in %.0f s: %s, %s (raw data in %s)' % (time.monotonic() - t_begin, out_md, out_png, work))


if __name__ == '__main__':
    main()
