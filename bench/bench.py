#!/usr/bin/python3
"""pelvane next to the ffmpeg tool on the same local sources, in the same run.

Measures, alternating the two tools round by round and reporting medians:
  - throughput: a 60-second 4 Mbit/s H.264 + AAC MPEG-TS file served over tcp:// as fast as
    TCP allows (sendfile), relayed to a pipe: CPU seconds (user + system, from wait4),
    wall seconds, bytes out, peak RSS;
  - live cost: an RTMP source in real time (nginx + RTMP module), 1, 10 and 40 relays at
    once: CPU per stream (whole run from wait4, and steady state from the scheduler's
    per-task run time), peak RSS per process and its private/proportional share;
  - time to first byte on standard output from process start, RTMP and HTTP sources;
  - all of it for MPEG-TS and for fragmented MP4 (pelvane --mp4);
  - the Google Benchmark micro-benchmarks (pelvane_bench), when built.
Writes a Markdown report and a PNG plot (gnuplot) of CPU per stream against relays.

Usage: bench.py --build DIR [--quick] [--out-dir DIR] [--only throughput,live,ttfb,micro]
BENCH_QUICK=1 in the environment is the same as --quick.
"""

import argparse
import datetime
import json
import os
import platform
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)


# ---------------------------------------------------------------- plan

class Plan:
    """How much to measure. The full plan stays under about 20 minutes on 2 cores."""

    def __init__(self, quick):
        self.quick = quick
        self.throughput_rounds = 2 if quick else 5
        self.live_levels = [1, 10] if quick else [1, 10, 40]
        self.live_levels_mp4 = [1] if quick else [1, 40]
        self.live_rounds = 1 if quick else 3
        self.live_rounds_mp4 = 1 if quick else 2
        self.live_seconds = 8.0 if quick else 20.0
        self.steady_from = 4.0 if quick else 6.0   # steady-state CPU is sampled from here to the end
        self.ttfb_rounds = 2 if quick else 7
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


# ---------------------------------------------------------------- sources

class SendfilePeer:
    """tcp://127.0.0.1:P serving one file to each client with sendfile(), as fast as TCP allows,
    then closing the connection (the client sees end of stream)."""

    def __init__(self, path):
        self.path = path
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.sock.bind(('127.0.0.1', 0))
        self.port = self.sock.getsockname()[1]
        self.url = 'tcp://127.0.0.1:%d' % self.port
        self.thread = None

    def _serve_one(self, conn):
        try:
            with open(self.path, 'rb') as f:
                conn.sendfile(f)
        except OSError:
            pass
        finally:
            conn.close()

    def _accept(self):
        while True:
            try:
                conn, _ = self.sock.accept()
            except OSError:
                return
            threading.Thread(target=self._serve_one, args=(conn,), daemon=True).start()

    def __enter__(self):
        self.sock.listen(64)
        self.thread = threading.Thread(target=self._accept, daemon=True)
        self.thread.start()
        return self

    def __exit__(self, *exc):
        try:
            self.sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.sock.close()
        self.thread.join(5)
        return False


# ---------------------------------------------------------------- the two tools

# ADTS AAC from an MPEG-TS source must be rewritten for MP4, or the tool refuses the audio.
MP4_FFMPEG_FLAGS = ['-bsf:a', 'aac_adtstoasc', '-movflags', 'frag_keyframe+empty_moov',
                    '-frag_duration', '1000000']


def tool_argv(tool, url, fmt, pelvane_bin):
    if tool == 'pelvane':
        return [pelvane_bin] + (['--mp4'] if fmt == 'mp4' else []) + ['--url', url]
    argv = ['ffmpeg', '-hide_banner', '-nostdin', '-loglevel', 'error', '-i', url,
            '-map', '0:v:0', '-map', '0:a:0', '-c', 'copy']
    if fmt == 'mp4':
        return argv + ['-f', 'mp4'] + MP4_FFMPEG_FLAGS + ['pipe:1']
    return argv + ['-f', 'mpegts', 'pipe:1']


def tool_order(round_no):
    """ABBA: pelvane first in even rounds, the ffmpeg tool first in odd ones."""
    return ('pelvane', 'ffmpeg') if round_no % 2 == 0 else ('ffmpeg', 'pelvane')


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


class Relay:
    """One relay process (pelvane or the ffmpeg tool) with its standard output read and
    counted by a thread, and its resource use taken from wait4 when it has ended."""

    def __init__(self, tool, argv, log_path):
        self.tool = tool
        self.argv = argv
        self.bytes = 0
        self.first_byte = None      # seconds from start
        self.rusage = None
        self.status = None
        self.ended = None           # seconds from start
        self.samples = []           # (seconds from start, task run time ns)
        self.shares = (None, None)
        self.hwm_kib = None
        err = open(log_path, 'wb')
        self.started = time.monotonic()
        self.popen = subprocess.Popen(['setpriv', '--pdeathsig', 'KILL', '--'] + argv,
                                      stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
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
        """SIGINT (both tools end cleanly on it), then SIGKILL if it is still there."""
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

    @property
    def maxrss_kib(self):
        """Peak RSS since exec: VmHWM as last sampled while the process ran."""
        return self.hwm_kib


def kill_all_relays():
    with _all_lock:
        relays = list(_all_relays)
    for r in relays:
        r.close()


# ---------------------------------------------------------------- measurements

class Bench:
    def __init__(self, plan, pelvane_bin, work):
        self.plan = plan
        self.bin = pelvane_bin
        self.work = work
        self.counter = 0
        self.results = {'throughput': [], 'live': [], 'ttfb': []}

    def start(self, tool, url, fmt):
        self.counter += 1
        log = os.path.join(self.work, '%s-%03d.err' % (tool, self.counter))
        return Relay(tool, tool_argv(tool, url, fmt, self.bin), log)

    def throughput(self, url, fmt):
        for rnd in range(self.plan.throughput_rounds):
            for tool in tool_order(rnd):
                r = self.start(tool, url, fmt)
                try:
                    done = r.wait(180)
                    if not done or r.status != 0 or r.bytes == 0:
                        raise RuntimeError('%s throughput run failed (status %s, %d bytes): %s' %
                                           (tool, r.status, r.bytes, ' '.join(r.argv)))
                    self.results['throughput'].append({
                        'tool': tool, 'fmt': fmt, 'round': rnd, 'cpu': r.cpu, 'wall': r.ended,
                        'bytes': r.bytes, 'maxrss_kib': r.maxrss_kib, 'ru_maxrss_kib': r.rusage.ru_maxrss})
                finally:
                    r.close()
                log('throughput %-4s %-7s round %d: cpu %.3f s wall %.3f s %d bytes' %
                    (fmt, tool, rnd, r.cpu, r.ended, r.bytes))

    def live(self, url, fmt, relays, rounds):
        for rnd in range(rounds):
            for tool in tool_order(rnd):
                group = []
                try:
                    for _ in range(relays):
                        group.append(self.start(tool, url, fmt))
                    t0 = time.monotonic()
                    time.sleep(self.plan.steady_from)
                    for r in group:
                        r.sample()
                    time.sleep(max(0.0, self.plan.live_seconds - (time.monotonic() - t0)))
                    for r in group:
                        r.sample()
                        r.shares = memory_shares_kib(r.pid)
                    for r in group:
                        r.signal(signal.SIGINT)
                    for r in group:
                        if not r.wait(15):
                            r.kill()
                    bad = [r for r in group if r.bytes == 0]
                    if bad:
                        raise RuntimeError('%d of %d %s relays wrote nothing (status %s)' %
                                           (len(bad), relays, tool, bad[0].status))
                    for r in group:
                        self.results['live'].append({
                            'tool': tool, 'fmt': fmt, 'relays': relays, 'round': rnd,
                            'cpu': r.cpu, 'lifetime': r.ended, 'steady': r.steady_cpu_rate(),
                            'maxrss_kib': r.maxrss_kib, 'ru_maxrss_kib': r.rusage.ru_maxrss,
                            'pss_kib': r.shares[0],
                            'private_kib': r.shares[1], 'bytes': r.bytes, 'ttfb': r.first_byte})
                finally:
                    for r in group:
                        r.close()
                mean_cpu = statistics.mean(r.cpu / r.ended for r in group)
                log('live %-4s %2d x %-7s round %d: %.2f ms CPU per stream-second' %
                    (fmt, relays, tool, rnd, mean_cpu * 1000))
                time.sleep(1.0)  # let nginx forget the players

    def ttfb(self, source, url, fmt):
        """Both tools started together in each round, so that both meet the live source at the
        same point (a relay's first byte waits for the source's next key frame, which makes
        separate starts differ by up to a GOP). Who is started first alternates."""
        for rnd in range(self.plan.ttfb_rounds):
            pair = {}
            try:
                for tool in tool_order(rnd):
                    pair[tool] = self.start(tool, url, fmt)
                deadline = time.monotonic() + 20
                while time.monotonic() < deadline:
                    if all(r.first_byte is not None or r.poll_exit() for r in pair.values()):
                        break
                    time.sleep(0.002)
                for r in pair.values():
                    r.finish()
                for tool, r in pair.items():
                    if r.first_byte is None:
                        raise RuntimeError('%s wrote nothing within 20 s from %s' % (tool, url))
                    self.results['ttfb'].append({'tool': tool, 'fmt': fmt, 'source': source,
                                                 'round': rnd, 'ttfb': r.first_byte})
            finally:
                for r in pair.values():
                    r.close()
            log('ttfb %-4s %-5s round %d: pelvane %.3f s, ffmpeg %.3f s' %
                (fmt, source, rnd, pair['pelvane'].first_byte, pair['ffmpeg'].first_byte))
            if source == 'rtmp':
                time.sleep(0.3)


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

def machine_facts(pelvane_bin):
    model = 'unknown'
    with open('/proc/cpuinfo') as f:
        for line in f:
            if line.startswith('model name'):
                model = line.split(':', 1)[1].strip()
                break
    ff_tool = subprocess.run(['ffmpeg', '-version'], capture_output=True, text=True).stdout.splitlines()[0]
    ldd = subprocess.run(['ldd', pelvane_bin], capture_output=True, text=True).stdout
    lib = next((l.split('=>')[1].split()[0] for l in ldd.splitlines() if 'libavformat' in l), '?')
    lib_real = os.path.realpath(lib) if lib != '?' else '?'
    return {
        'cpu': model, 'cores': os.cpu_count(), 'kernel': platform.release(),
        'ffmpeg_tool': ff_tool.replace('Copyright', '').split(' (c)')[0].strip(),
        'pelvane_libavformat': os.path.basename(lib_real),
        'date': datetime.datetime.now().strftime('%Y-%m-%d %H:%M'),
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


def live_summary(results, fmt, relays):
    """Per tool: medians over rounds of the per-round means, and medians over processes."""
    out = {}
    for tool in ('pelvane', 'ffmpeg'):
        rows = [r for r in results['live'] if r['tool'] == tool and r['fmt'] == fmt and r['relays'] == relays]
        if not rows:
            return None
        by_round = {}
        for r in rows:
            by_round.setdefault(r['round'], []).append(r)
        out[tool] = {
            'cpu_rate': med(statistics.mean(r['cpu'] / r['lifetime'] for r in rs) for rs in by_round.values()),
            'steady': med(statistics.mean(r['steady'] for r in rs if r['steady'] is not None)
                          for rs in by_round.values() if any(r['steady'] is not None for r in rs)),
            'maxrss': med(r['maxrss_kib'] for r in rows),
            'pss': med(r['pss_kib'] for r in rows),
            'private': med(r['private_kib'] for r in rows),
            'ttfb': med(r['ttfb'] for r in rows),
        }
    return out


def ttfb_differences(rows):
    """pelvane's minus the ffmpeg tool's time to first byte, per round (both started together)."""
    by_round = {}
    for r in rows:
        by_round.setdefault(r['round'], {})[r['tool']] = r['ttfb']
    return [v['pelvane'] - v['ffmpeg'] for v in by_round.values() if len(v) == 2]


def tool_medians(rows, key):
    return {t: med(r[key] for r in rows if r['tool'] == t) for t in ('pelvane', 'ffmpeg')}


def write_report(path, plot_name, results, machine, micro, plan):
    L = []
    w = L.append
    w('# pelvane next to the ffmpeg tool')
    w('')
    w('Written by `make bench` (`bench/run.sh`, `bench/bench.py`)%s. Medians; ratio = pelvane / ffmpeg '
      '(below 1 is better for pelvane).' % (' in quick mode (BENCH_QUICK=1)' if plan.quick else ''))
    w('')
    w('| machine | |')
    w('|---|---|')
    w('| CPU | %s, %d cores |' % (machine['cpu'], machine['cores']))
    w('| kernel | %s |' % machine['kernel'])
    w('| ffmpeg tool | %s |' % machine['ffmpeg_tool'])
    w('| pelvane built against | %s |' % machine['pelvane_libavformat'])
    w('| run | %s, load average %.2f before |' % (machine['date'], machine['load_before']))
    w('')
    w('The ffmpeg tool runs as `ffmpeg -hide_banner -nostdin -loglevel error -i URL -map 0:v:0 -map 0:a:0 '
      '-c copy -f mpegts pipe:1`; for MP4 `-f mp4 %s pipe:1`; pelvane as `pelvane [--mp4] --url URL`. '
      'Both write into a pipe that the harness reads; the tools alternate (ABBA) round by round.' %
      ' '.join(MP4_FFMPEG_FLAGS))
    w('')

    # targets first: what the issue asks for
    ts = {n: live_summary(results, 'ts', n) for n in plan.live_levels}
    w('## Targets')
    w('')
    w('| target | measured | met |')
    w('|---|---|---|')
    def met(v, limit):
        return '-' if v is None else ('yes' if v <= limit else 'no')

    for n in (1, 40):
        s = ts.get(n)
        if s:
            rr = ratio(s['pelvane']['cpu_rate'], s['ffmpeg']['cpu_rate'])
            rs = ratio(s['pelvane']['steady'], s['ffmpeg']['steady'])
            w('| CPU per stream ≤ 0.8 × ffmpeg, %d relay%s (MPEG-TS, RTMP) | %s × over the %.0f-s run; %s × in '
              'steady state | %s; %s |' % (n, '' if n == 1 else 's', fmt_num(rr, '.2f'), plan.live_seconds,
                                          fmt_num(rs, '.2f'), met(rr, 0.8), met(rs, 0.8)))
    s1 = ts.get(1)
    if s1:
        rr = ratio(s1['pelvane']['maxrss'], s1['ffmpeg']['maxrss'])
        w('| peak RSS per process ≤ 0.5 × ffmpeg | %s × (%s vs %s MiB) | %s |' %
          (fmt_num(rr, '.2f'), fmt_num(s1['pelvane']['maxrss'] / 1024, '.1f'),
           fmt_num(s1['ffmpeg']['maxrss'] / 1024, '.1f'), 'yes' if rr is not None and rr <= 0.5 else 'no'))
    for source in ('rtmp', 'http'):
        rows = [r for r in results['ttfb'] if r['source'] == source and r['fmt'] == 'ts']
        if rows:
            m = tool_medians(rows, 'ttfb')
            diffs = ttfb_differences(rows)
            d = med(diffs)
            w('| time to first byte no worse, %s (MPEG-TS) | %s s vs %s s; paired difference %s ms (median of %d) '
              '| %s |' % (source.upper(), fmt_num(m['pelvane'], '.3f'), fmt_num(m['ffmpeg'], '.3f'),
                          fmt_num(None if d is None else d * 1000, '+.0f'), len(diffs), met(d, 0.0)))
    if ts.get(1) and ts.get(40):
        g = ratio(ts[40]['pelvane']['cpu_rate'], ts[1]['pelvane']['cpu_rate'])
        gs = ratio(ts[40]['pelvane']['steady'], ts[1]['pelvane']['steady'])
        w('| pelvane CPU per stream at 40 relays ≤ 1.2 × at 1 | %s × over the run; %s × in steady state | '
          '%s; %s |' % (fmt_num(g, '.2f'), fmt_num(gs, '.2f'), met(g, 1.2), met(gs, 1.2)))
    w('')

    w('## Throughput: 60 s of 4 Mbit/s H.264 + AAC MPEG-TS over tcp:// as fast as TCP allows')
    w('')
    w('| output | metric | pelvane | ffmpeg | ratio |')
    w('|---|---|---|---|---|')
    for fmt in ('ts', 'mp4'):
        rows = [r for r in results['throughput'] if r['fmt'] == fmt]
        if not rows:
            continue
        for key, label, scale, number_format in (('cpu', 'CPU s (user+sys)', 1, '.3f'), ('wall', 'wall s', 1, '.3f'),
                                        ('bytes', 'bytes out', 1, ',.0f'), ('maxrss_kib', 'peak RSS MiB', 1 / 1024, '.1f')):
            m = tool_medians(rows, key)
            w('| %s | %s | %s | %s | %s |' % ('MPEG-TS' if fmt == 'ts' else 'MP4', label,
                                              fmt_num(m['pelvane'] * scale, number_format), fmt_num(m['ffmpeg'] * scale, number_format),
                                              fmt_num(ratio(m['pelvane'], m['ffmpeg']), '.2f')))
    w('')

    w('## Live cost: RTMP source in real time (about 2 Mbit/s), N relays at once')
    w('')
    w('CPU per stream = a process\'s user + system time (wait4) over its lifetime of %.0f s, start-up and '
      'probing included; steady = scheduler run time from %.0f s to the end. Memory: peak RSS (VmHWM of '
      'the process since its exec; shared library pages count in full), and at the end Pss and private '
      '(USS) pages from smaps_rollup.' % (plan.live_seconds, plan.steady_from))
    w('')
    w('| output | relays | CPU ms/s per stream pelvane | ffmpeg | ratio | steady pelvane | ffmpeg | ratio | '
      'peak RSS MiB pelvane | ffmpeg | ratio | Pss MiB pelvane | ffmpeg | private MiB pelvane | ffmpeg |')
    w('|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|')
    for fmt, levels in (('ts', plan.live_levels), ('mp4', plan.live_levels_mp4)):
        for n in levels:
            s = live_summary(results, fmt, n)
            if not s:
                continue
            p, f = s['pelvane'], s['ffmpeg']

            def ms(v):
                return None if v is None else v * 1000

            def mib(v):
                return None if v is None else v / 1024
            w('| %s | %d | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |' % (
                'MPEG-TS' if fmt == 'ts' else 'MP4', n,
                fmt_num(ms(p['cpu_rate']), '.2f'), fmt_num(ms(f['cpu_rate']), '.2f'),
                fmt_num(ratio(p['cpu_rate'], f['cpu_rate']), '.2f'),
                fmt_num(ms(p['steady']), '.2f'), fmt_num(ms(f['steady']), '.2f'),
                fmt_num(ratio(p['steady'], f['steady']), '.2f'),
                fmt_num(mib(p['maxrss']), '.1f'), fmt_num(mib(f['maxrss']), '.1f'),
                fmt_num(ratio(p['maxrss'], f['maxrss']), '.2f'),
                fmt_num(mib(p['pss']), '.1f'), fmt_num(mib(f['pss']), '.1f'),
                fmt_num(mib(p['private']), '.1f'), fmt_num(mib(f['private']), '.1f')))
    w('')
    w('![CPU per stream against relays](%s)' % plot_name)
    w('')

    w('## Time to first byte on standard output, from process start')
    w('')
    w('Both tools are started together in each round (paired); "pelvane not later" counts the rounds '
      'in which pelvane\'s first byte came no later than the ffmpeg tool\'s.')
    w('')
    w('| output | source | pelvane s | ffmpeg s | ratio | pelvane not later | rounds |')
    w('|---|---|---|---|---|---|---|')
    for fmt in ('ts', 'mp4'):
        for source, label in (('rtmp', 'RTMP (live, key frame every second)'), ('http', 'HTTP (file, as fast as possible)')):
            rows = [r for r in results['ttfb'] if r['source'] == source and r['fmt'] == fmt]
            if rows:
                m = tool_medians(rows, 'ttfb')
                by_round = {}
                for r in rows:
                    by_round.setdefault(r['round'], {})[r['tool']] = r['ttfb']
                pairs = [v for v in by_round.values() if len(v) == 2]
                not_later = sum(1 for v in pairs if v['pelvane'] <= v['ffmpeg'])
                w('| %s | %s | %s | %s | %s | %d of %d | %d |' % (
                    'MPEG-TS' if fmt == 'ts' else 'MP4', label, fmt_num(m['pelvane'], '.3f'),
                    fmt_num(m['ffmpeg'], '.3f'), fmt_num(ratio(m['pelvane'], m['ffmpeg']), '.2f'),
                    not_later, len(pairs), len(pairs)))
    w('')

    if micro:
        w('## Micro-benchmarks (Google Benchmark, `%s`)' % 'build/<dir>/bench/pelvane_bench')
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


def write_plot(path, results, plan, work):
    if not shutil.which('gnuplot'):
        log('no gnuplot (Debian package gnuplot-nox): no plot')
        return
    data = os.path.join(work, 'cpu_per_stream.dat')
    series = []
    with open(data, 'w') as f:
        for fmt, levels, key in (('ts', plan.live_levels, 'cpu_rate'), ('mp4', plan.live_levels_mp4, 'cpu_rate'),
                                 ('ts', plan.live_levels, 'steady')):
            for tool in ('pelvane', 'ffmpeg'):
                f.write('# %s %s %s\n' % (tool, fmt, key))
                n_rows = 0
                for n in levels:
                    s = live_summary(results, fmt, n)
                    if s and s[tool][key] is not None:
                        f.write('%d %.4f\n' % (n, s[tool][key] * 1000))
                        n_rows += 1
                f.write('\n\n')
                title = '%s %s%s' % (tool, 'MPEG-TS' if fmt == 'ts' else 'MP4',
                                     ', steady state' if key == 'steady' else ', whole run')
                series.append((title, n_rows, key == 'steady'))
    plots = []
    for idx, (title, n_rows, dashed) in enumerate(series):
        if n_rows:
            plots.append("'%s' index %d using 1:2 with linespoints lw 2 pt 7 %s title '%s'" %
                         (data, idx, 'dt 2' if dashed else '', title))
    script = '\n'.join([
        'set terminal pngcairo size 900,540 font "sans,11"' if _has_cairo() else 'set terminal png size 900,540',
        "set output '%s'" % path,
        "set title 'CPU per relayed stream, RTMP source in real time (%.0f-s runs, medians)'" % plan.live_seconds,
        "set xlabel 'relays at once'",
        "set ylabel 'CPU ms per second of stream'",
        'set logscale x', 'set xtics (1, 10, 40)', 'set xrange [0.8:50]', 'set yrange [0:*]',
        'set key bottom left', 'set grid',
        'plot ' + ', '.join(plots),
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
    ap.add_argument('--build', required=True, help='build directory holding v2/pelvane')
    ap.add_argument('--quick', action='store_true', help='fewer rounds, shorter runs (also BENCH_QUICK=1)')
    ap.add_argument('--out-dir', help='where results.md and cpu_per_stream.png go (default: bench/, or '
                    '<build>/bench-quick when quick)')
    ap.add_argument('--only', default='throughput,live,ttfb,micro', help='comma-separated parts to run')
    ap.add_argument('--report-from', metavar='RESULTS_JSON',
                    help='measure nothing: write the report and plot again from a run\'s raw results.json')
    a = ap.parse_args()
    build = os.path.abspath(a.build)
    quick = a.quick or os.environ.get('BENCH_QUICK', '') not in ('', '0')
    plan = Plan(quick)
    parts = set(a.only.split(','))
    if a.report_from:
        with open(a.report_from) as f:
            raw = json.load(f)
        plan = Plan(raw.get('quick', quick))
        out_dir = a.out_dir or (os.path.join(build, 'bench-quick') if plan.quick else HERE)
        os.makedirs(out_dir, exist_ok=True)
        work = os.path.dirname(os.path.abspath(a.report_from))
        write_plot(os.path.join(out_dir, 'cpu_per_stream.png'), raw['results'], plan, work)
        write_report(os.path.join(out_dir, 'results.md'), 'cpu_per_stream.png', raw['results'], raw['machine'],
                     raw.get('micro'), plan)
        return

    setup_environment(build)
    import harness
    import peers
    register_bench_media(harness)

    pelvane_bin = os.environ['PELVANE_BIN']
    work = harness.scratch('bench')
    os.makedirs(work, exist_ok=True)
    out_dir = a.out_dir or (os.path.join(build, 'bench-quick') if quick else HERE)
    os.makedirs(out_dir, exist_ok=True)
    out_md = os.path.join(out_dir, 'results.md')
    out_png = os.path.join(out_dir, 'cpu_per_stream.png')

    machine = machine_facts(pelvane_bin)
    log('machine: %s' % json.dumps(machine))
    bench = Bench(plan, pelvane_bin, work)
    t_begin = time.monotonic()
    try:
        log('media (generated once into %s)' % harness.MEDIA)
        file_4m = harness.media_path('bench_4m_60s.ts')
        live_media = harness.media_path('bench_live_2m.mkv')
        if 'throughput' in parts:
            with SendfilePeer(file_4m) as src:
                for fmt in ('ts', 'mp4'):
                    bench.throughput(src.url, fmt)
        if 'live' in parts or 'ttfb' in parts:
            with peers.RtmpPeer(media=live_media) as rtmp:
                time.sleep(1.0)
                if 'live' in parts:
                    for n in plan.live_levels:
                        bench.live(rtmp.url, 'ts', n, plan.live_rounds)
                    for n in plan.live_levels_mp4:
                        bench.live(rtmp.url, 'mp4', n, plan.live_rounds_mp4)
                if 'ttfb' in parts:
                    for fmt in ('ts', 'mp4'):
                        bench.ttfb('rtmp', rtmp.url, fmt)
        if 'ttfb' in parts:
            with peers.HttpPeer(os.path.dirname(file_4m)) as http:
                url = http.url(os.path.basename(file_4m))
                for fmt in ('ts', 'mp4'):
                    bench.ttfb('http', url, fmt)
        micro = run_micro(build, plan, work) if 'micro' in parts else None
    finally:
        kill_all_relays()
        harness.stop_all()
    with open(os.path.join(work, 'results.json'), 'w') as f:
        json.dump({'machine': machine, 'quick': plan.quick, 'results': bench.results, 'micro': micro}, f,
                  indent=1)
    write_plot(out_png, bench.results, plan, work)
    write_report(out_md, os.path.basename(out_png), bench.results, machine, micro, plan)
    log('done in %.0f s: %s, %s (raw data in %s)' % (time.monotonic() - t_begin, out_md, out_png, work))


if __name__ == '__main__':
    main()
