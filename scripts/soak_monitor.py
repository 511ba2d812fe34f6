#!/usr/bin/env python3
"""oltb monitor for a long run (make soak-monitor): memory must stay flat once the history is full.

A simulator in real time (a job every 0.62 s), a monitor that follows it with a save directory (rotating beyond
its limit) and a live page open on /events, and a scraper reading /metrics, /jobs.json and /report every 10 s as a
browser and Prometheus would. Every two minutes the simulator is killed and started again, so that the monitor's
way back is soaked too. Once a minute it prints the monitor's resident memory, jobs, reconnects and the median
analysis time of the last 100 jobs; at the end it compares the memory in the first and the last third of the run
after the history filled.
Exit 0 flat, 1 memory grew, 2 the monitor stopped or fell behind. Runs on 127.0.20.200 and .201.
"""
import argparse, json, os, shutil, signal, subprocess, sys, tempfile, threading, time, urllib.request

SIM, LISTEN = '127.0.20.200', '127.0.20.201:9496'
GROWTH_ALLOWED = 0.10  # of the memory once the history is full: allocator noise, never a leak of jobs


def resident_mb(pid):
    with open('/proc/%d/status' % pid) as status:
        for line in status:
            if line.startswith('VmRSS:'):
                return int(line.split()[1]) / 1024.0
    return 0.0


def get(path):
    with urllib.request.urlopen('http://%s%s' % (LISTEN, path), timeout=30) as response:
        return response.read()


def live_page(stop, counts):
    """Reads /events as the live page does, counting the jobs announced; reconnects as EventSource would."""
    while not stop.is_set():
        try:
            with urllib.request.urlopen('http://%s/events' % LISTEN, timeout=30) as events:
                for line in events:
                    if line.startswith(b'event: job'):
                        counts['announced'] += 1
                    if stop.is_set():
                        return
        except OSError:
            stop.wait(1)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--tool', required=True)
    parser.add_argument('--simulator', required=True)
    parser.add_argument('--seconds', type=float, default=3600)
    parser.add_argument('--history', type=int, default=1000)
    args = parser.parse_args()
    work = tempfile.mkdtemp(prefix='oltb-soak-')
    start_sim = lambda: subprocess.Popen([args.simulator, '--address', SIM], stdout=subprocess.DEVNULL)
    sim = start_sim()
    monitor = subprocess.Popen([args.tool, 'monitor', SIM, '--start', '1', '--end', '2', '--name', 'soak',
                                '--listen', LISTEN, '--history', str(args.history), '--save-dir', work + '/saves',
                                '--save-limit-mb', '20'], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    stop, counts = threading.Event(), {'announced': 0}
    page = threading.Thread(target=live_page, args=(stop, counts), daemon=True)
    samples, began, failure = [], time.time(), None
    try:
        time.sleep(2)
        page.start()
        next_restart, next_print = began + 120, began
        while time.time() - began < args.seconds:
            time.sleep(10)
            if monitor.poll() is not None:
                failure = 'the monitor ended with %s' % monitor.returncode
                break
            history = json.loads(get('/jobs.json'))
            status = history['status']
            analysis = sorted(job['analysis_ms'] for job in history['jobs'][-100:]) or [0]
            get('/metrics')
            get('/report')
            elapsed = time.time() - began
            samples.append((elapsed, resident_mb(monitor.pid), status['jobs']))
            if time.time() >= next_print:
                print('%6.0f s  %7.1f MB  jobs %6d  skipped %4d  reconnects %3d  announced %6d  saved %5.1f MB'
                      '  analysis %4.0f ms' % (elapsed, samples[-1][1], status['jobs'], status['skipped_jobs'],
                                               status['reconnects'], counts['announced'],
                                               status['saved_bytes'] / 1048576.0, analysis[len(analysis) // 2]),
                      flush=True)
                next_print += 60
            if time.time() >= next_restart:
                sim.kill()
                sim.wait()
                sim = start_sim()
                next_restart += 120
    finally:
        stop.set()
        monitor.send_signal(signal.SIGTERM)
        ended = monitor.wait(60)
        sim.terminate()
        sim.wait(10)
        shutil.rmtree(work, ignore_errors=True)
    if failure or ended != 0:
        print('FAILED:', failure or 'the monitor ended with %d on SIGTERM' % ended)
        return 2
    full = [s for s in samples if s[2] >= args.history + 10]  # the history full (and then some)
    if not full:
        print('the history of %d jobs never filled in %.0f s: run longer or with a shorter --history'
              % (args.history, args.seconds))
        return 2
    # A job's analysis takes tens of MB while it runs, so single samples swing; the means of the first and the
    # last third of the run after the history filled tell growth from noise.
    third = max(1, len(full) // 3)
    early = sum(s[1] for s in full[:third]) / third
    late = sum(s[1] for s in full[-third:]) / third
    print('history full at %.0f s; mean of the first third after it %.1f MB, of the last third %.1f MB (%+.1f %%); '
          'largest %.1f MB; %d jobs' % (full[0][0], early, late, 100.0 * (late - early) / early,
                                        max(s[1] for s in full), samples[-1][2]))
    if late > early * (1 + GROWTH_ALLOWED):
        print('FAILED: memory grew after the history was full')
        return 1
    print('memory flat')
    return 0


if __name__ == '__main__':
    sys.exit(main())
