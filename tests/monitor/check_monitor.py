#!/usr/bin/env python3
"""oltb monitor against simulators, the way a shop floor uses it.

floor: two simulators with heads of different tracking errors, a monitor on each, and a real Prometheus (Debian's)
scraping both: its HTTP API must return both machines' tracking errors. Then one simulator is killed and started
again (the monitor comes back by itself, counts the reconnect and sets its signals again), its save directory fills
(a visible state; the files saved before stay whole), labels that never come are said, and addresses that cannot
be listened on end the command with one line and exit code 5.
page: the live page in headless Chromium (driven over the DevTools protocol) shows a new job's figures without a
reload, a click on a trend point shows that job, and the last job's report is drawn; --screenshot keeps a picture.
Exit 0 passed, 1 failed, 77 skipped (prometheus, chromium or python3-websockets missing). Every wait is bounded.
"""
import argparse, asyncio, base64, json, os, re, resource, select, shutil, subprocess, sys, tempfile, time
import urllib.parse, urllib.request

SIGNALS = ['LaserPower16', 'Gate', 'Head0TxX', 'Head0TxY', 'Head0RxX', 'Head0RxY', 'Label']
running = []


def start(command, ready):
    """Starts a program and waits (bounded) for a line of its standard output that contains `ready`."""
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    running.append(process)
    deadline = time.time() + 20
    while time.time() < deadline and select.select([process.stdout], [], [], deadline - time.time())[0]:
        line = process.stdout.readline()
        if ready in line:
            return process
        if not line:
            break  # it ended
    process.kill()
    raise AssertionError('%s did not start: %s' % (' '.join(command), process.stderr.read()))


def wait_for(what, check, seconds=60):
    deadline = time.time() + seconds
    while time.time() < deadline:
        result = check()
        if result:
            return result
        time.sleep(0.1)
    raise AssertionError('timed out waiting for ' + what)


def get(url):
    with urllib.request.urlopen(url, timeout=10) as response:
        return response.read().decode()


def status(listen):
    return json.loads(get('http://%s/jobs.json' % listen))['status']


def metric(listen, name):
    found = re.search(r'^%s\{[^}]*\} (\S+)$' % name, get('http://%s/metrics' % listen), re.M)
    return float(found.group(1)) if found else None


def sim(address, *options):
    return start([args.simulator, '--address', address, *options], 'listening')


def monitor(host, listen, *options, labels=('1', '2')):
    return start([args.tool, 'monitor', host, '--start', labels[0], '--end', labels[1], '--listen', listen, *options],
                 'watching')


def floor(work):
    # A short job (one diagonal mark, 31,000 events), so that jobs are analysed quickly under the sanitizers too.
    job = os.path.join(work, 'short.job')
    with open(job, 'w') as text:
        text.write('label 1\njump -100000 -100000\nmark 100000 100000\njump -100000 -100000\nlabel 2\n')
    sims = {'press-a': sim('127.0.20.1', '--job', job, '--tracking-error-us', '200'),
            'press-b': sim('127.0.20.2', '--job', job, '--tracking-error-us', '350')}
    saves = os.path.join(work, 'saves')
    a = monitor('127.0.20.1', '127.0.20.3:9496', '--name', 'press-a', '--save-dir', saves, '--save-limit-mb', '1')
    b = monitor('127.0.20.2', '127.0.20.4:9496', '--name', 'press-b')
    with open(os.path.join(work, 'prometheus.yml'), 'w') as config:
        config.write('global: {scrape_interval: 1s}\nscrape_configs:\n  - job_name: oltb\n    static_configs:\n'
                     '      - targets: ["127.0.20.3:9496", "127.0.20.4:9496"]\n')
    prometheus = subprocess.Popen(['prometheus', '--config.file=' + os.path.join(work, 'prometheus.yml'),
                                   '--web.listen-address=127.0.20.5:9090', '--storage.tsdb.path=' + work + '/tsdb',
                                   '--log.level=error'], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    running.append(prometheus)

    def query(expression):
        try:
            answer = json.loads(get('http://127.0.20.5:9090/api/v1/query?query=' + urllib.parse.quote(expression)))
        except OSError:
            return None  # not up yet
        return {(s['metric']['machine'], s['metric'].get('axis')): float(s['value'][1])
                for s in answer['data']['result']}

    errors = wait_for('Prometheus to have both machines', lambda: (lambda r: r if r and len(r) == 4 else None)(
        query('oltb_tracking_error_seconds')), 60)
    print('Prometheus, oltb_tracking_error_seconds:', sorted(errors.items()))
    for (machine, axis), seconds in errors.items():
        expected = {'press-a': 200e-6, 'press-b': 350e-6}[machine]
        assert abs(seconds - expected) < 0.02 * expected, (machine, axis, seconds)

    # The card goes and comes back: a simulator starts with the signals of its own default (PortA among them).
    jobs_before = status('127.0.20.3:9496')['jobs']
    sims['press-a'].kill()
    wait_for('the machine to be away', lambda: status('127.0.20.3:9496')['state'] == 'away' and
             metric('127.0.20.3:9496', 'oltb_connected') == 0)
    sims['press-a'] = sim('127.0.20.1', '--job', job, '--tracking-error-us', '200')
    back = wait_for('the monitor to come back', lambda: (lambda s: s if s['state'] == 'tracing' else None)(
        status('127.0.20.3:9496')))
    assert back['reconnects'] == 1 and back['signals'] == SIGNALS, back
    wait_for('jobs after the reconnect', lambda: status('127.0.20.3:9496')['jobs'] > jobs_before)
    wait_for('Prometheus to see the reconnect', lambda: query('oltb_reconnects_total') == {('press-a', None): 1,
                                                                                      ('press-b', None): 0})

    # The save directory: the oldest go beyond the limit; a file size limit makes saving fail, visibly, and
    # leaves what was saved before as it was.
    wait_for('saved jobs', lambda: status('127.0.20.3:9496')['saved_bytes'] > 0)
    # The saves finished (a job being saved is NAME.h5.part until it is complete).
    files = lambda: {name: os.path.getsize(os.path.join(saves, name)) for name in os.listdir(saves)
                     if name.endswith('.h5')}
    unlimited = resource.prlimit(a.pid, resource.RLIMIT_FSIZE)
    resource.prlimit(a.pid, resource.RLIMIT_FSIZE, (10000, unlimited[1]))
    failing = wait_for('a failed save', lambda: (lambda s: s if s['saving'] else None)(status('127.0.20.3:9496')))
    kept = files()
    assert 'File too large' in failing['saving'] and metric('127.0.20.3:9496', 'oltb_save_failing') == 1, failing
    assert 0 < sum(kept.values()) <= 1024 * 1024 + max(kept.values()), kept
    count = failing['jobs']
    wait_for('a job analysed while saving fails', lambda: status('127.0.20.3:9496')['jobs'] > count)
    assert files() == kept, ('files saved before changed while saving failed', kept, files())
    analysed = json.loads(subprocess.run([args.tool, 'analyze', os.path.join(saves, max(kept)), '--json'],
                                         capture_output=True, text=True, timeout=60).stdout)
    assert abs(analysed['tracking_error_us']['x'] - 200) < 4, analysed['tracking_error_us']
    resource.prlimit(a.pid, resource.RLIMIT_FSIZE, unlimited)
    wait_for('saving again', lambda: not status('127.0.20.3:9496')['saving'])

    # Labels that never come, on the other machine: the page and the metrics say so.
    b.terminate()
    assert b.wait(30) == 0 and 'stopped after' in b.stdout.read()
    monitor('127.0.20.2', '127.0.20.4:9496', '--max-wait', '1', labels=('99', '100'))
    labels = wait_for('the labels to be missed', lambda: status('127.0.20.4:9496')['labels'])
    assert labels == 'no start label 99 within 1 s (--max-wait); still waiting', labels
    assert metric('127.0.20.4:9496', 'oltb_labels_missing') == 1

    # Addresses that cannot be listened on: one line and exit code 5 (2 for a malformed one).
    for listen, code, line in [('127.0.20.3:9496', 5, 'cannot listen on 127.0.20.3:9496: Address already in use'),
                               ('192.0.2.1:9496', 5, 'cannot listen on 192.0.2.1:9496: Cannot assign requested '),
                               ('127.0.20.3', 2, '--listen wants ADDRESS:PORT')]:
        run = subprocess.run([args.tool, 'monitor', '127.0.20.1', '--start', '1', '--end', '2', '--listen', listen],
                             capture_output=True, text=True, timeout=30)
        assert run.returncode == code and run.stderr.startswith('oltb: ' + line) and run.stderr.count('\n') == 1, run


async def drive_page(url, screenshot):
    import websockets
    profile = tempfile.mkdtemp(dir=args.work)
    running.append(subprocess.Popen(['chromium', '--headless', '--no-sandbox', '--disable-gpu', '--no-first-run',
                                     '--user-data-dir=' + profile, '--remote-debugging-port=0', '--hide-scrollbars',
                                     '--window-size=1600,1400', url],
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
    port_file = os.path.join(profile, 'DevToolsActivePort')  # Chromium writes the port it chose there
    port = wait_for('chromium', lambda: os.path.exists(port_file) and open(port_file).readline().strip(), 30)
    page = wait_for('the page', lambda: [t for t in json.loads(get('http://127.0.0.1:%s/json/list' % port))
                                         if t['type'] == 'page'])[0]
    async with websockets.connect(page['webSocketDebuggerUrl'], max_size=None) as cdp:
        problems, serial = [], [0]

        async def call(method, **params):
            serial[0] += 1
            await cdp.send(json.dumps({'id': serial[0], 'method': method, 'params': params}))
            while True:
                message = json.loads(await asyncio.wait_for(cdp.recv(), 30))
                if message.get('method') in ('Runtime.exceptionThrown', 'Runtime.consoleAPICalled'):
                    problems.append(message['params'])
                if message.get('id') == serial[0]:
                    return message.get('result', {})

        async def evaluate(expression):
            return (await call('Runtime.evaluate', expression=expression, returnByValue=True))['result'].get('value')

        async def until(what, expression, seconds=40):
            deadline = time.time() + seconds
            while time.time() < deadline:
                value = await evaluate(expression)
                if value:
                    return value
                await asyncio.sleep(0.2)
            raise AssertionError('timed out waiting for ' + what)

        await call('Runtime.enable')
        first = int(await until('a job on the page', "document.getElementById('job-section').dataset.job"))
        await evaluate('window.loadedOnce = true')
        later = int(await until('the next job', "+document.getElementById('job-section').dataset.job > %d && "
                                "window.loadedOnce && document.getElementById('job-section').dataset.job" % first))
        figures = await evaluate("document.getElementById('job-figures').innerText")
        assert re.search(r'tracking error\s+X 2\d\d\.\d µs', figures) and later > first, figures
        # A click on the oldest point of the tracking error trend shows that job.
        x, y, oldest = await evaluate("(() => { const g = oltbMonitor.charts.get('trend-tracking'); "
                                      "const [x, y] = g.toDomCoords(g.getValue(0, 0), g.getValue(0, 1)); "
                                      "const r = g.graphDiv.getBoundingClientRect(); "
                                      "return [r.left + x, r.top + y, oltbMonitor.jobs()[0].id]; })()")
        for kind in ('mouseMoved', 'mousePressed', 'mouseReleased'):
            await call('Input.dispatchMouseEvent', type=kind, x=x, y=y, button='left', clickCount=1)
        await until('the clicked job', "document.getElementById('job-title').textContent === 'Job %d'" % oldest)
        await until('the report', "(document.getElementById('report').contentDocument.getElementById('settings') "
                                  "|| {rows: []}).rows.length > 3")
        if screenshot:
            await evaluate("document.querySelector('#follow').click()")
            await until('the last job again', "document.getElementById('job-title').textContent.startsWith('Last')")
            shot = await call('Page.captureScreenshot', format='png')
            open(screenshot, 'wb').write(base64.b64decode(shot['data']))
        assert not [p for p in problems if p.get('type') in (None, 'error', 'warning')], problems
        print('page: job %d then %d without a reload; a click showed job %d' % (first, later, oldest))


def page(work):
    card = sim('127.0.20.6')
    monitor('127.0.20.6', '127.0.20.7:9496', '--name', 'laser-1')
    if args.screenshot:  # for the README's picture: the head changes halfway (and the card goes and comes back)
        wait_for('jobs', lambda: status('127.0.20.7:9496')['jobs'] >= 20, 60)
        card.kill()
        sim('127.0.20.6', '--tracking-error-us', '265', '--laser-on-delay-us', '240')
        wait_for('jobs', lambda: status('127.0.20.7:9496')['jobs'] >= 40, 60)
    asyncio.run(drive_page('http://127.0.20.7:9496/', args.screenshot))


parser = argparse.ArgumentParser()
parser.add_argument('case', choices=['floor', 'page'])
parser.add_argument('--tool', required=True)
parser.add_argument('--simulator', required=True)
parser.add_argument('--screenshot')
args = parser.parse_args()
needs = {'floor': ['prometheus'], 'page': ['chromium']}[args.case]
try:
    if args.case == 'page':
        import websockets  # noqa: F401
except ImportError:
    needs.append('python3-websockets')
if any(not shutil.which(n) for n in needs if n != 'python3-websockets') or 'python3-websockets' in needs:
    print('skipped: needs', ', '.join(needs))
    sys.exit(77)
args.work = tempfile.mkdtemp(prefix='oltb-monitor-')
try:
    globals()[args.case](args.work)
    print('passed')
except AssertionError as failure:
    print('FAILED:', failure)
    sys.exit(1)
finally:
    for process in reversed(running):
        process.terminate()
        try:
            process.wait(10)
        except subprocess.TimeoutExpired:
            process.kill()
    shutil.rmtree(args.work, ignore_errors=True)
