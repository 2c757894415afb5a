# Shared machinery for the integration tests (stdlib only): ports, processes that never outlive
# a test, generated media, running pelvane, sanitizer reports and readers of the output.
# Environment (set by ctest): PELVANE_BIN, PELVANE_CC_BIN, PELVANE_CHANNELS_BIN, PELVANE_WORK, PELVANE_MEDIA.

import collections
import contextlib
import fcntl
import json
import os
import pathlib
import shutil
import resource
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
BIN = os.environ.get('PELVANE_BIN') or os.path.join(REPO, 'build', 'sys', 'v2', 'pelvane')
CC_BIN = os.environ.get('PELVANE_CC_BIN') or os.path.join(REPO, 'build', 'sys', 'v2', 'pelvane-cc')
CHANNELS_BIN = os.environ.get('PELVANE_CHANNELS_BIN') or os.path.join(REPO, 'build', 'sys', 'v2', 'pelvane-channels')
MEDIA = os.environ.get('PELVANE_MEDIA') or os.path.join(REPO, 'build', 'media')
WORK = os.environ.get('PELVANE_WORK') or tempfile.gettempdir()
MIME_HEAD_TS = b'HTTP/1.0 200 OK\nContent-Type: video/mp2t\n\n'
resource.setrlimit(resource.RLIMIT_CORE, (0, 0))  # runs that end by SIGABRT are expected


# A path in a per-process directory, so parallel runs never share files.
def scratch(name):
    os.makedirs(os.path.join(WORK, 'pelvane-p%d' % os.getpid()), exist_ok=True)
    return os.path.join(WORK, 'pelvane-p%d' % os.getpid(), name)


def read_file(path, text=False):
    return pathlib.Path(path).read_text('utf-8', 'replace') if text else pathlib.Path(path).read_bytes()


def write_file(path, data):
    pathlib.Path(path).write_bytes(data)
    return path


def free_port(host='127.0.0.1'):
    with socket.create_server((host, 0)) as s:
        return s.getsockname()[1]


# A missing peer or decoder fails the test, naming what installs it.
def require(path, package):
    assert os.path.exists(path), '%s is missing: install the Debian package %s (make deps)' % (path, package)


def need(tool, package):
    require(shutil.which(tool) or '/usr/bin/' + tool, package)
    return shutil.which(tool)


def wait_for(predicate, timeout, step=0.05):
    deadline = time.monotonic() + timeout
    while not (v := predicate()) and time.monotonic() < deadline:
        time.sleep(step)
    return v


# Asks `ss` (a connect would use up a single-client listener); gives up when proc has ended.
def wait_listen(port, timeout=10.0, proc=None):
    listening = lambda: 'LISTEN' in subprocess.run(['ss', '-Hltn', 'sport = :%d' % port], capture_output=True,  # noqa
                                                   text=True, timeout=10).stdout
    return wait_for(lambda: listening() or (proc is not None and not proc.running()), timeout) and listening()


_live, _findings = set(), []


# A child in its own process group, killed with it on clean-up (and by the kernel if we die).
class Proc:

    def __init__(self, argv, stdin=subprocess.DEVNULL, stdout=None, stderr=None, log_path=None):
        self.log_path, self._log = log_path, open(log_path, 'ab') if log_path and stdout is None else None
        self.popen = subprocess.Popen(['setpriv', '--pdeathsig', 'KILL', '--'] + list(argv), stdin=stdin,
                                      stdout=self._log or stdout, stderr=subprocess.STDOUT if self._log else stderr,
                                      start_new_session=True)
        self.pid, self.started = self.popen.pid, time.monotonic()
        _live.add(self)

    running = lambda self: self.popen.poll() is None  # noqa: E731

    # Exit status (-N for signal N), or None when still running after timeout seconds.
    def wait(self, timeout):
        with contextlib.suppress(subprocess.TimeoutExpired):
            return self.popen.wait(timeout=timeout)

    send = lambda self, sig, group=False: self.running() and (os.killpg if group else os.kill)(self.pid, sig)  # noqa

    def stop(self, grace=3.0):
        self.send(signal.SIGTERM, True), self.send(signal.SIGCONT, True)
        self.wait(grace) is None and (self.send(signal.SIGKILL, True), self.wait(5))
        [f.close() for f in (self.popen.stdout, self.popen.stderr, self._log) if f]
        _live.discard(self)
        return self.popen.returncode

    log_text = lambda self: read_file(self.log_path, True) if self.log_path and os.path.exists(self.log_path) else ''


# A front end that starts `argv` per connection on 127.0.0.1:port, with the connection as
# standard input and output: systemd's socket activation ('socket-activate') or socat.
def front_end(kind, port, argv):
    front = Proc([need('systemd-socket-activate', 'systemd'), '--inetd', '-a', '-l', '127.0.0.1:%d' % port] + argv
                 if kind == 'socket-activate' else [need('socat', 'socat'), 'TCP-LISTEN:%d,bind=127.0.0.1,reuseaddr,fork'
                                                    % port, 'EXEC:' + ' '.join("'%s'" % a for a in argv)],
                 log_path=scratch('%s-%d.log' % (kind, port)))
    assert wait_listen(port, 10, front), front.log_text()
    return front


# Live (not zombie) pelvane processes of a front end's session.
def relays_in(session):
    ps = subprocess.run(['ps', '-o', 'stat=,comm=', '--sid', str(session)], capture_output=True, text=True).stdout
    return [line for line in ps.splitlines() if line.split()[1:] == ['pelvane'] and not line.startswith('Z')]


# Clients of `urls` at once through a front end, each holding a relay of its own, each read for n
# bytes with curl: per client, (the head it got, the codecs ffprobe finds after it).
def clients_at_once(front, urls, n, tag):
    curls = [subprocess.Popen([need('curl', 'curl'), '-sS', '-N', '-i', '--max-time', '30', url],
                              stdout=subprocess.PIPE) for url in urls]
    assert wait_for(lambda: len(relays_in(front.pid)) == len(urls), 10), 'not one relay per client: %s' % tag
    got = []
    for k, curl in enumerate(curls):
        data = curl.stdout.read(n)
        curl.kill(), curl.wait(), curl.stdout.close()
        path = write_file(scratch('%s-%d.ts' % (tag, k)), data[len(MIME_HEAD_TS):])
        got.append((data[:len(MIME_HEAD_TS)], codecs(path)))
    return got


def stop_all():
    [p.stop() for p in list(_live)]


_video = lambda size, src='testsrc': ['-f', 'lavfi', '-i', '%s=size=%s:rate=25' % (src, size)]  # noqa: E731


TONE = ['-f', 'lavfi', '-i', 'sine=frequency=440:sample_rate=48000']
X264 = ['-c:v', 'libx264', '-preset', 'veryfast', '-tune', 'zerolatency', '-pix_fmt', 'yuv420p', '-g', '25', '-bf', '0']

# name -> function(output path) giving the ffmpeg tool's arguments before the output, or None
# when it wrote the file itself.
MEDIA_RECIPES = {
    'subs.vtt': lambda out: write_file(out, b'WEBVTT\n\ncue-1\n00:00:00.500 --> 00:00:01.500 align:start line:90%\n'
                                            b'First cue\n\n00:00:01.800 --> 00:00:02.800 align:end position:80%\n'
                                            b'Second cue with <b>bold</b>\n') and None,
    'h264_aac_vtt.mkv': lambda out: ['-i', media_path('h264_aac.mkv'), '-i', media_path('subs.vtt'), '-map', '0',
                                     '-map', '1', '-c', 'copy'],
    'h264_aac.mkv': lambda out: _video('640x360') + TONE + ['-t', '5'] + X264 + ['-c:a', 'aac', '-ac', '2'],
    'mpeg2_mp2.ts': lambda out: _video('640x360') + TONE + ['-t', '5', '-c:v', 'mpeg2video', '-b:v', '1500k', '-g',
                                                            '25', '-c:a', 'mp2'],
    # About 10 MB of MPEG-2 noise: a source far faster than a slow client.
    'bulk.ts': lambda out: _video('640x360', 'testsrc2') + TONE + [
        '-t', '5', '-vf', 'noise=alls=60:allf=t', '-c:v', 'mpeg2video', '-q:v', '10', '-g', '12', '-c:a', 'mp2'],
}


register_media = MEDIA_RECIPES.setdefault


# Generated media `name`, made once (under a lock) and shared by every run and build.
def media_path(name):
    path = os.path.join(MEDIA, name)
    os.makedirs(MEDIA, exist_ok=True)
    with open(os.path.join(MEDIA, '.%s.lock' % name), 'w') as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not os.path.exists(path):
            tmp = os.path.join(MEDIA, '.tmp-%d-%s' % (os.getpid(), name))
            args = MEDIA_RECIPES[name](tmp)
            r = args and subprocess.run(['ffmpeg', '-nostdin', '-v', 'error', '-y'] + args + [tmp],
                                        capture_output=True, text=True, timeout=300)
            assert not r or r.returncode == 0, 'generating %s failed: %s' % (name, r.stderr)
            os.replace(tmp, path)
    return path


class Run(collections.namedtuple('Run', 'status stdout stderr elapsed argv')):
    describe = lambda self: 'pelvane %s -> status %s after %.2f s, %d bytes out; stderr:\n%s' % (  # noqa: E731
        ' '.join(self.argv), self.status, self.elapsed, len(self.stdout), self.stderr[-3000:])


# pelvane in the background, stdout and stderr in files (or stdout given, e.g. a pipe).
class Started:

    def __init__(self, args, stdout=None, tag='run', stdin=subprocess.DEVNULL):
        self.args, self.err_path = list(args), scratch(tag + '.err')
        self.out_path = stdout is None and scratch(tag + '.out')
        with open(self.err_path, 'wb') as err, open(self.out_path or os.devnull, 'wb') as out:
            self.proc = Proc([BIN] + self.args, stdin=stdin, stdout=stdout or out, stderr=err)

    stderr = lambda self: read_file(self.err_path, True)  # noqa: E731

    def output_reaches(self, n, timeout):
        return wait_for(lambda: os.path.getsize(self.out_path) >= n or not self.proc.running(),
                        timeout) and self.proc.running()

    # Sends sig, waits, stops; a Run whose elapsed counts from here.
    def finish(self, timeout=10, sig=None):
        t0 = time.monotonic()
        sig is not None and self.proc.send(sig)
        self.proc.wait(timeout)
        elapsed, _ = time.monotonic() - t0, self.proc.stop()
        err = self.stderr()
        # Under the sanitizers a fault shows only as a report on stderr; it fails the test that ran it.
        hits = [err.find(m) for m in ('ERROR: AddressSanitizer', 'ERROR: LeakSanitizer', 'runtime error:') if m in err]
        hits and _findings.append(' '.join(self.args) + ':\n' + err[min(hits):min(hits) + 6000])
        return Run(self.proc.popen.returncode, read_file(self.out_path) if self.out_path else b'', err, elapsed,
                   self.args)


# Runs pelvane to its end; raises TimeoutError when it is still running after timeout seconds.
def run_pelvane(args, timeout=60, stdin=subprocess.DEVNULL, tag='run'):
    s = Started(args, tag=tag, stdin=stdin)
    ended = s.proc.wait(timeout) is not None
    run = s.finish(0)._replace(elapsed=time.monotonic() - s.proc.started)
    if not ended:
        raise TimeoutError('still running after %d s: %s' % (timeout, run.describe()))
    return run


class _SanitizerAwareResult(unittest.TextTestResult):
    def stopTest(self, test):
        _findings and self.addFailure(test, (AssertionError, AssertionError(
            'sanitizer report from pelvane:\n' + '\n'.join(_findings)), None))
        del _findings[:]
        super().stopTest(test)


# None when data is whole 188-byte packets (a cut last one allowed if asked), else what is wrong.
def ts_framing_problem(data, allow_partial_tail=False):
    bad = next((off for off in range(0, len(data), 188) if data[off] != 0x47), None)
    if len(data) < 188 or (len(data) % 188 and not allow_partial_tail) or bad is not None:
        return 'length %d, first packet without a sync byte at %s' % (len(data), bad)


def ffprobe_json(path, key, *entries):
    r = subprocess.run(['ffprobe', '-v', 'error', '-of', 'json'] + list(entries) + [path], capture_output=True,
                       text=True, timeout=120)
    assert r.returncode == 0, 'ffprobe failed on %s: %s' % (path, r.stderr)
    return json.loads(r.stdout or '{}').get(key, [])


ffprobe_streams = lambda path: ffprobe_json(path, 'streams', '-show_streams')  # noqa: E731
codecs = lambda path_or_url: sorted(s['codec_name'] for s in ffprobe_streams(path_or_url))  # noqa: E731
ffprobe_packets = lambda path: ffprobe_json(path, 'packets', '-show_entries',  # noqa: E731
                                            'packet=stream_index,codec_type,dts,flags')


# Every packet whose dts is missing or does not exceed its stream's previous one.
def dts_problems(packets):
    last, problems = {}, []
    for n, p in enumerate(packets):
        s, dts, before = p.get('stream_index'), p.get('dts'), last.get(p.get('stream_index'))
        (dts is None or before is not None and dts <= before) and problems.append((s, n, dts, before))
        last[s] = before if dts is None else dts
    return problems


# What a decode of every packet reports; empty when all decode. Frames keep the stream's own
# time base: re-stamped at the frame rate, a live source's jitter puts two frames on one tick,
# which the null muxer reports, though nothing failed to decode.
def decode_errors(path):
    r = subprocess.run(['ffmpeg', '-nostdin', '-hide_banner', '-v', 'error', '-i', path, '-enc_time_base', '-1',
                        '-f', 'null', '-'], capture_output=True, text=True, timeout=180)
    lines = (r.stdout + r.stderr).splitlines()
    return '\n'.join(line for n, line in enumerate(lines) if 'non monotonically increasing dts' not in line and not (
        'Last message repeated' in line and n and 'non monotonically' in lines[n - 1])).strip()


class RelayChecks(unittest.TestCase):

    # A relayed MPEG-TS: optional exact head, whole packets, these codecs (any order), strictly
    # increasing dts per stream, a key first video packet, a clean decode. Returns the packets.
    def assertRelayTs(self, run_or_data, codecs, head=None, allow_partial_tail=False, name='out'):
        data = run_or_data.stdout if isinstance(run_or_data, Run) else run_or_data
        ctx = run_or_data.describe() if isinstance(run_or_data, Run) else ''
        self.assertEqual(data[:len(head or b'')], head or b'', ctx)
        data = data[len(head or b''):]
        self.assertIsNone(ts_framing_problem(data, allow_partial_tail), ctx)
        path = write_file(scratch(name + '.ts'), data)
        self.assertEqual(sorted(s.get('codec_name') for s in ffprobe_streams(path)), sorted(codecs), ctx)
        packets = ffprobe_packets(path)
        self.assertEqual((bool(packets), dts_problems(packets)[:5]), (True, []), ctx)
        video = [p for p in packets if p.get('codec_type') == 'video']
        self.assertTrue(not video or video[0].get('flags', '').startswith('K'), 'first video packet not key\n' + ctx)
        self.assertEqual(decode_errors(path), '', ctx)
        return packets


def main():
    sys.stderr.write('pelvane under test: %s\n' % BIN)
    try:
        unittest.main(verbosity=2, testRunner=unittest.TextTestRunner(resultclass=_SanitizerAwareResult, verbosity=2))
    finally:
        stop_all()
