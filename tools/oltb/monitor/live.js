// The live page of oltb monitor. It asks the monitor for nothing on a timer: the monitor's server-sent events
// (/events) bring the history once ("snapshot"), then the machine's state ("status") and each job as it ends
// ("job"). The browser's EventSource reconnects by itself when the monitor was away, and gets a new snapshot.
'use strict';
(function () {
  const $ = (id) => document.getElementById(id);
  const REPORT_EVERY_MS = 5000;  // the last job's report is made on request; new jobs replace it at most this often

  // The trend charts: what each draws of a job's figures.
  const TRENDS = [
    { id: 'trend-tracking', labels: ['X', 'Y'], values: (j) => [j.tracking_error_us.x, j.tracking_error_us.y] },
    { id: 'trend-missing', labels: ['start', 'end'], values: (j) => [j.start_missing.median, j.end_missing.median] },
    { id: 'trend-dose', labels: ['edge dose'], values: (j) => [j.edge_dose_max] },
    { id: 'trend-settle', labels: ['settle µs'], values: (j) => [j.settle_max_us] },
    { id: 'trend-lost', labels: ['lost'], values: (j) => [j.lost_events] },
  ];

  let jobs = [];            // the history, oldest first
  let historyLength = 1000;
  let status = null;
  let pinned = null;        // the job shown after a click on a trend; null: the last job
  const charts = new Map();
  const report = { id: 0, loading: false, shownAt: 0, timer: null };
  window.oltbMonitor = { charts, jobs: () => jobs };  // for scripts that drive the page (and its test)

  const text = (value, digits) => (value === null || value === undefined ? '–' : Number(value).toFixed(digits));
  const timeOf = (job) => new Date(job.ended_unix * 1000);

  function drawTrends() {
    for (const trend of TRENDS) {
      const rows = jobs.map((job) => [timeOf(job), ...trend.values(job)]);
      const chart = charts.get(trend.id);
      if (chart) {
        chart.updateOptions({ file: rows });
      } else if (rows.length > 0) {
        // The legend goes into the caption, out of the way of the points.
        const legend = document.createElement('span');
        legend.className = 'legend';
        $(trend.id).previousElementSibling.appendChild(legend);
        charts.set(trend.id, new Dygraph($(trend.id), rows, {
          labels: ['time', ...trend.labels], drawPoints: true, pointSize: 2.5, strokeWidth: 1,
          highlightCircleSize: 5, legend: 'always', labelsDiv: legend, axisLabelFontSize: 11,
          colors: ['#1e6fd9', '#c62828'], includeZero: trend.id !== 'trend-tracking',
          // The point the pointer is closest to is selected; a click shows that job.
          clickCallback: function () {
            const row = this.getSelection();
            if (row >= 0 && row < jobs.length) showJob(jobs[row].id);
          },
        }));
      }
    }
  }

  function applyStatus(next) {
    status = next;
    $('machine').textContent = next.machine;
    const state = $('state');
    state.textContent = next.state;
    state.className = 'state ' + next.state;
    $('where').textContent = 'card ' + next.host + ', head ' + next.head + ', jobs between labels ' +
      next.start_label + ' and ' + next.end_label + '; traced: ' + (next.signals.join(', ') || '–');
    const alerts = [];
    if (next.state === 'away') alerts.push(['bad', 'The card is away: ' + next.detail]);
    if (next.labels) alerts.push(['warn', 'Labels: ' + next.labels]);
    if (next.saving) alerts.push(['bad', 'Save directory: ' + next.saving]);
    $('alerts').replaceChildren(...alerts.map(([kind, line]) => {
      const item = document.createElement('li');
      item.className = kind;
      item.textContent = line;
      return item;
    }));
    fillTable($('counters'), [
      ['jobs', next.jobs], ['incomplete', next.incomplete_jobs], ['skipped', next.skipped_jobs],
      ['lost events', next.lost_events], ['reconnects', next.reconnects], ['save failures', next.save_failures],
      ['saved', (next.saved_bytes / 1048576).toFixed(1) + ' MB'],
    ]);
  }

  function fillTable(table, rows, header) {
    table.replaceChildren();
    if (header) {
      const tr = table.insertRow();
      for (const cell of header) {
        const th = document.createElement('th');
        th.textContent = cell;
        tr.appendChild(th);
      }
    }
    for (const [name, ...cells] of rows) {
      const tr = table.insertRow();
      const th = document.createElement(header ? 'td' : 'th');
      th.textContent = name;
      tr.appendChild(th);
      for (const cell of cells) tr.insertCell().textContent = cell;
    }
  }

  // A job's figures in full (a "job" event, or /jobs/N.json).
  function renderJob(job) {
    const last = jobs.length > 0 && job.id === jobs[jobs.length - 1].id;
    $('job-title').textContent = (pinned === null ? 'Last job ' : 'Job ') + job.id;
    $('job-section').dataset.job = job.id;
    $('follow').hidden = pinned === null || last;
    const rows = [
      ['ended', timeOf(job).toLocaleString()],
      ['duration', text(job.duration_us / 1000, 1) + ' ms, ' + job.events + ' events'],
      ['marks, jumps', job.marks + ', ' + job.jumps + (job.jumps_unsettled ? ' (' + job.jumps_unsettled +
        ' not settled)' : '')],
      ['tracking error', 'X ' + text(job.tracking_error_us.x, 1) + ' µs   Y ' + text(job.tracking_error_us.y, 1) +
        ' µs'],
      ['missing start', text(job.start_missing.median, 0) + ' units (worst ' + text(job.start_missing.max, 0) + ')'],
      ['missing end', text(job.end_missing.median, 0) + ' units (worst ' + text(job.end_missing.max, 0) + ')'],
      ['edge dose', text(job.edge_dose_max, 2) + ' ×'],
      ['worst settle', text(job.settle_max_us, 1) + ' µs'],
      ['lost events', job.lost_events],
      ['analysed in', text(job.analysis_ms, 0) + ' ms'],
    ];
    if (job.saved) rows.push(['saved as', job.saved]);
    if (job.failure) rows.push(['failure', job.failure]);
    fillTable($('job-figures'), rows);
    const settings = job.settings ? Object.entries(job.settings).map(([name, value]) =>
      [name.replace(/_us$/, '').replace(/_/g, ' '), text(value.now, 1), text(value.suggested, 0)]) : [];
    fillTable($('job-settings'), settings, ['setting (µs)', 'now', 'suggested']);
    $('job-warnings').replaceChildren(...(job.warning_texts || []).map((warning) => {
      const item = document.createElement('li');
      item.textContent = warning;
      return item;
    }));
  }

  function showJob(id) {
    const last = jobs.length > 0 && id === jobs[jobs.length - 1].id;
    pinned = last ? null : id;
    fetch('/jobs/' + id + '.json').then((response) => (response.ok ? response.json() : null)).then((job) => {
      // Jobs that came meanwhile, or another click, have the panel now.
      const wanted = pinned !== null ? pinned : jobs[jobs.length - 1].id;
      if (id !== wanted) return;
      if (job) renderJob(job);
      else $('job-title').textContent = 'Job ' + id + ' is no longer in the history';
    });
  }

  // The report of the last job, replaced as jobs come, but each one shown at least REPORT_EVERY_MS after it has
  // loaded: on a busy computer a report may take longer to make and draw than the jobs take to come.
  function followReport() {
    const last = jobs.length > 0 ? jobs[jobs.length - 1].id : 0;
    if ($('hold').checked || last === 0 || last === report.id || report.loading || report.timer) return;
    const load = () => {
      report.timer = null;
      report.loading = true;
      report.id = jobs[jobs.length - 1].id;
      $('report').src = '/report?job=' + report.id;
    };
    const wait = report.shownAt + REPORT_EVERY_MS - Date.now();
    if (wait <= 0) load();
    else report.timer = setTimeout(load, wait);
  }

  $('report').addEventListener('load', () => {
    report.loading = false;
    report.shownAt = Date.now();
    try {  // the report is served by the monitor itself, so its height can be read
      const page = $('report').contentDocument.documentElement;
      $('report').style.height = Math.max(600, page.scrollHeight + 20) + 'px';
    } catch (error) { /* keep the height of the style */ }
    followReport();
  });
  $('hold').addEventListener('change', followReport);
  $('follow').addEventListener('click', (event) => {
    event.preventDefault();
    if (jobs.length > 0) showJob(jobs[jobs.length - 1].id);
  });

  const source = new EventSource('/events');
  source.addEventListener('snapshot', (event) => {
    const snapshot = JSON.parse(event.data);
    historyLength = snapshot.history_length;
    jobs = snapshot.jobs;
    applyStatus(snapshot.status);
    drawTrends();
    if (pinned === null && jobs.length > 0) showJob(jobs[jobs.length - 1].id);
    followReport();
  });
  source.addEventListener('status', (event) => applyStatus(JSON.parse(event.data)));
  source.addEventListener('job', (event) => {
    const job = JSON.parse(event.data);
    if (jobs.length > 0 && job.id <= jobs[jobs.length - 1].id) return;  // already in the snapshot
    jobs.push(job);
    if (jobs.length > historyLength) jobs.splice(0, jobs.length - historyLength);
    drawTrends();
    if (pinned === null) renderJob(job);
    followReport();
  });
  source.addEventListener('error', () => {
    if (status) applyStatus(Object.assign({}, status, { state: 'away', detail: 'the page lost the monitor; ' +
      'it reconnects by itself' }));
  });
})();
