// What the pages of oltb (the report and the comparison) share: the packed numbers undone, numbers and units as
// text, ticks with their numbers, tables, and the small plots drawn on canvases of the page's own (axes with ticks,
// numbers and titles, each text's box kept for the browser test). The page's own script comes after this one and
// takes what it needs from OltbPage.
'use strict';

const OltbPage = (function () {
  // ---- numbers ---------------------------------------------------------------------------------------------------
  // zlib's deflate format (RFC 1950, 1951) undone in plain script: the browser's own inflater only works
  // asynchronously, after the page has loaded, too late for a page printed at once.
  const LengthBase = [];
  const LengthExtra = [];
  const DistanceBase = [];
  const DistanceExtra = [];
  for (let i = 0, base = 3; i < 28; ++i) {
    LengthExtra.push(i < 8 ? 0 : (i - 4) >> 2);
    LengthBase.push(base);
    base += 1 << LengthExtra[i];
  }
  LengthBase.push(258);
  LengthExtra.push(0);
  for (let i = 0, base = 1; i < 30; ++i) {
    DistanceExtra.push(i < 2 ? 0 : (i >> 1) - 1);
    DistanceBase.push(base);
    base += 1 << DistanceExtra[i];
  }
  const CodeLengthOrder = [16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15];

  // A canonical Huffman code as a table indexed by its next `bits` input bits (first bit lowest): symbol << 4 | length.
  function huffman(lengths) {
    const bits = Math.max(1, ...lengths);
    const counts = new Array(16).fill(0);
    for (const length of lengths) counts[length]++;
    counts[0] = 0;
    const next = new Array(16).fill(0);
    for (let length = 1, code = 0; length < 16; ++length) {
      code = (code + counts[length - 1]) << 1;
      next[length] = code;
    }
    const table = new Int32Array(1 << bits);
    lengths.forEach((length, symbol) => {
      if (length === 0) return;
      let reversed = 0;
      for (let i = 0, code = next[length]++; i < length; ++i, code >>= 1) reversed = (reversed << 1) | (code & 1);
      for (let j = reversed; j < table.length; j += 1 << length) table[j] = (symbol << 4) | length;
    });
    return { bits: bits, table: table };
  }
  const FixedLiterals = huffman(Array.from({ length: 288 }, (_, i) => (i < 144 ? 8 : i < 256 ? 9 : i < 280 ? 7 : 8)));
  const FixedDistances = huffman(new Array(30).fill(5));

  function inflate(input, size) {
    const out = new Uint8Array(size);
    let at = 2;  // after zlib's header
    let buffer = 0;
    let held = 0;
    let written = 0;
    const need = (n) => { while (held < n) { buffer |= (input[at++] | 0) << held; held += 8; } };
    const take = (n) => { need(n); const v = buffer & ((1 << n) - 1); buffer >>>= n; held -= n; return v; };
    const decode = (code) => {
      need(code.bits);
      const entry = code.table[buffer & ((1 << code.bits) - 1)];
      if ((entry & 15) === 0) throw new Error('a packed array is damaged');
      buffer >>>= entry & 15;
      held -= entry & 15;
      return entry >> 4;
    };
    for (let last = 0; !last;) {
      last = take(1);
      const type = take(2);
      if (type === 0) {  // stored: the bytes as they are, from the next byte boundary
        at -= held >> 3;
        buffer = 0;
        held = 0;
        const count = input[at] | (input[at + 1] << 8);
        out.set(input.subarray(at + 4, at + 4 + count), written);
        at += 4 + count;
        written += count;
        continue;
      }
      let literals = FixedLiterals;
      let distances = FixedDistances;
      if (type === 2) {
        const literalCount = take(5) + 257;
        const distanceCount = take(5) + 1;
        const codeLengths = new Array(19).fill(0);
        for (let i = 0, count = take(4) + 4; i < count; ++i) codeLengths[CodeLengthOrder[i]] = take(3);
        const lengthCode = huffman(codeLengths);
        const lengths = [];
        while (lengths.length < literalCount + distanceCount) {
          const symbol = decode(lengthCode);
          if (symbol < 16) {
            lengths.push(symbol);
          } else {
            const repeated = symbol === 16 ? lengths[lengths.length - 1] : 0;
            const times = symbol === 16 ? 3 + take(2) : symbol === 17 ? 3 + take(3) : 11 + take(7);
            for (let r = 0; r < times; ++r) lengths.push(repeated);
          }
        }
        literals = huffman(lengths.slice(0, literalCount));
        distances = huffman(lengths.slice(literalCount));
      }
      // The hot loop, with the bit reader written out: literals, and copies of what came before.
      const literalMask = (1 << literals.bits) - 1;
      const distanceMask = (1 << distances.bits) - 1;
      for (;;) {
        while (held < 15) { buffer |= (input[at++] | 0) << held; held += 8; }
        const entry = literals.table[buffer & literalMask];
        if ((entry & 15) === 0) throw new Error('a packed array is damaged');
        buffer >>>= entry & 15;
        held -= entry & 15;
        const symbol = entry >> 4;
        if (symbol < 256) {
          out[written++] = symbol;
          continue;
        }
        if (symbol === 256) break;
        const length = LengthBase[symbol - 257] + take(LengthExtra[symbol - 257]);
        while (held < 15) { buffer |= (input[at++] | 0) << held; held += 8; }
        const code = distances.table[buffer & distanceMask];
        if ((code & 15) === 0) throw new Error('a packed array is damaged');
        buffer >>>= code & 15;
        held -= code & 15;
        const distance = DistanceBase[code >> 4] + take(DistanceExtra[code >> 4]);
        if (distance > written) throw new Error('a packed array is damaged');
        for (const end = written + length; written < end; ++written) out[written] = out[written - distance];
      }
    }
    if (written !== size) throw new Error('a packed array holds ' + written + ' of ' + size + ' bytes');
    return out;
  }

  // A packed array (tools/oltb/report/PackedNumbers.h): base64 of deflated int32 differences of the scaled values.
  const GapMark = -2147483648;
  function unpack(packed, Type) {
    const text = atob(packed.data);
    const bytes = new Uint8Array(text.length);
    for (let i = 0; i < text.length; ++i) bytes[i] = text.charCodeAt(i);
    const differences = new Int32Array(inflate(bytes, 4 * packed.count).buffer);
    const values = new (Type || Float64Array)(packed.count);
    let sum = 0;
    for (let i = 0; i < differences.length; ++i) {
      if (differences[i] === GapMark) {
        values[i] = NaN;
      } else {
        sum += differences[i];
        values[i] = packed.offset + sum / packed.scale;
      }
    }
    return values;
  }

  const known = (v) => v !== null && v !== undefined && Number.isFinite(v);
  const fixed = (v, digits) => (known(v) ? v.toFixed(digits) : '–');
  const us = (v) => (known(v) ? v.toFixed(1) + ' µs' : '–');
  const wholeUs = (v) => (known(v) ? Math.round(v) + ' µs' : '–');
  const ms = (v) => +(v / 1000).toFixed(3) + ' ms';

  // Lengths, small distances (missing lengths, errors, rounding) and speeds in mm, µm and mm/s with `unitsPerMm`
  // (> 0), otherwise in head units and units/ms.
  function units(unitsPerMm) {
    const smallScale = unitsPerMm ? 1000 / unitsPerMm : 1;
    const smallUnit = unitsPerMm ? 'µm' : 'units';
    const speedScale = unitsPerMm ? 1000 / unitsPerMm : 1;
    const speedUnit = unitsPerMm ? 'mm/s' : 'units/ms';
    return {
      length: (v) => (!known(v) ? '–' : unitsPerMm ? (v / unitsPerMm).toFixed(3) + ' mm' : Math.round(v) + ' units'),
      smallScale: smallScale,
      smallUnit: smallUnit,
      small: (v) => (!known(v) ? '–' : (v * smallScale).toFixed(unitsPerMm ? 1 : 0) + ' ' + smallUnit),
      speedScale: speedScale,
      speedUnit: speedUnit,
      speed: (v) => (!known(v) ? '–' : (v * speedScale).toFixed(unitsPerMm ? 1 : 0) + ' ' + speedUnit),
      positionScale: unitsPerMm ? 1 / unitsPerMm : 1,
      positionUnit: unitsPerMm ? 'mm' : 'units',
    };
  }

  const share = (v) => (known(v) ? Math.round(v * 100) + ' %' : '–');
  // The dose where the mirror moves at `speedShare` of the mark speed, as a multiple of the dose of the mark's body.
  const doseOf = (speedShare) => (known(speedShare) ? 1 / Math.max(speedShare, 0.01) : null);
  const dose = (value) => (!known(value) ? '–' : value >= 99.5 ? 'dot' : value.toFixed(1) + '×');

  const median = (values) => {
    const sorted = values.filter(known).sort((a, b) => a - b);
    return sorted.length ? sorted[sorted.length >> 1] : null;
  };

  // The first index of a sorted array whose value is at least `value`.
  function lowerBound(array, value) {
    let low = 0;
    let high = array.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (array[middle] < value) low = middle + 1; else high = middle;
    }
    return low;
  }

  // Ticks at 1, 2 or 5 times a power of ten, about `count` of them over [low, high] and at least three, with their
  // numbers.
  function niceTicks(low, high, count) {
    if (!(high > low)) return [];
    const raw = (high - low) / Math.max(count, 1);
    const power = Math.pow(10, Math.floor(Math.log10(raw)));
    let step = [1, 2, 5, 10].map((f) => f * power).find((s) => s >= raw);
    // A range just past a round number would leave a lone tick: the next smaller step (5 to 2 to 1 to 0.5).
    for (let k = 0; k < 6 && Math.floor(high / step) - Math.ceil(low / step) < 2; ++k) {
      step *= Math.round(step / Math.pow(10, Math.floor(Math.log10(step) + 1e-9))) === 5 ? 0.4 : 0.5;
    }
    const ticks = [];
    for (let k = Math.ceil(low / step); k * step <= high; ++k) ticks.push({ v: k * step, label: tickLabel(k * step, step) });
    return ticks;
  }

  function tickLabel(v, step) {
    if (Math.abs(v) < step / 2) return '0';
    if (step >= 1000) return (v / 1000).toLocaleString('en', { maximumFractionDigits: 3 }) + 'k';
    return v.toFixed(Math.max(0, -Math.floor(Math.log10(step) + 1e-9)));
  }

  // ---- page parts --------------------------------------------------------------------------------------------------
  function element(tag, text, className) {
    const node = document.createElement(tag);
    if (text !== undefined) node.textContent = text;
    if (className) node.className = className;
    return node;
  }

  function tableRows(table, header, rows) {
    if (header.length > 0) {
      const head = table.createTHead().insertRow();
      for (const title of header) head.appendChild(element('th', title));
    }
    const body = table.createTBody();
    return rows.map((cells) => {
      const row = body.insertRow();
      for (const cell of cells) row.appendChild(element('td', cell));
      return row;
    });
  }

  const byId = (id) => document.getElementById(id);

  // ---- canvases of the page's own -------------------------------------------------------------------------------
  let printing = false;  // while printing, canvases are drawn at twice the resolution
  const setPrinting = (on) => { printing = on; };

  // The canvas at its size on the page, in device pixels (twice as many on paper), cleared.
  function prepare(canvas) {
    const ratio = Math.max(window.devicePixelRatio || 1, printing ? 2 : 1);
    const width = canvas.clientWidth;
    const height = canvas.clientHeight;
    if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
      canvas.width = Math.round(width * ratio);
      canvas.height = Math.round(height * ratio);
    }
    const context = canvas.getContext('2d');
    context.setTransform(ratio, 0, 0, ratio, 0, 0);
    context.clearRect(0, 0, width, height);
    context.font = '11px sans-serif';
    context.textBaseline = 'alphabetic';
    return { context: context, width: width, height: height };
  }

  // Draws a text and keeps its box ([kind, text, left, top, width, height]) in `boxes`; a title along the y axis
  // is drawn upwards, centred on (x, y).
  function text(context, boxes, kind, string, x, y, align, upwards) {
    const width = context.measureText(string).width;
    context.save();
    context.textAlign = upwards ? 'center' : align;
    context.translate(x, y);
    if (upwards) context.rotate(-Math.PI / 2);
    context.fillText(string, 0, 0);
    context.restore();
    const left = align === 'center' ? x - width / 2 : align === 'right' ? x - width : x;
    boxes.push(upwards ? [kind, string, x - 9, y - width / 2, 11, width] : [kind, string, left, y - 9, width, 11]);
  }

  // A small plot: axes with ticks and numbers and their titles, then what `figure.paint` draws inside. With
  // figure.y.equal the y axis takes the x axis' scale, centred on 0 and reaching at least figure.y.atLeast; with
  // figure.y.log it is logarithmic.
  function drawFigure(canvas, figure) {
    const { context, width, height } = prepare(canvas);
    const area = { x: 58, y: 8, w: width - 68, h: height - 44 };
    const boxes = [];
    const x = figure.x;
    const y = figure.y;
    if (y.equal) {  // wide enough for y.atLeast on either side of 0
      const needed = 2 * (y.atLeast || 0) * area.w / area.h;
      if (x.high - x.low < needed) [x.low, x.high] = [(x.low + x.high - needed) / 2, (x.low + x.high + needed) / 2];
      y.high = (x.high - x.low) * area.h / area.w / 2;
      y.low = -y.high;
    }
    const sx = (v) => area.x + (v - x.low) / (x.high - x.low) * area.w;
    const toLog = (v) => Math.log10(Math.max(v, y.low));
    const sy = y.log ? (v) => area.y + area.h - (toLog(v) - toLog(y.low)) / (toLog(y.high) - toLog(y.low)) * area.h
      : (v) => area.y + area.h - (v - y.low) / (y.high - y.low) * area.h;
    const yTicks = y.log ? logTicks(y.low, y.high) : niceTicks(y.low, y.high, area.h / 30);
    context.strokeStyle = '#e3e7ec';
    context.fillStyle = '#5b6673';
    context.lineWidth = 1;
    for (const tick of niceTicks(x.low, x.high, area.w / 75)) {
      const at = Math.round(sx(tick.v)) + 0.5;
      context.beginPath(); context.moveTo(at, area.y); context.lineTo(at, area.y + area.h); context.stroke();
      const half = context.measureText(tick.label).width / 2;
      if (at - half >= 0 && at + half <= width) text(context, boxes, 'x', tick.label, at, area.y + area.h + 13, 'center');
    }
    for (const tick of yTicks) {
      const at = Math.round(sy(tick.v)) + 0.5;
      context.beginPath(); context.moveTo(area.x, at); context.lineTo(area.x + area.w, at); context.stroke();
      if (at < area.y + area.h - 8) text(context, boxes, 'y', tick.label, area.x - 4, at + 4, 'right');
    }
    text(context, boxes, 'title', x.title, area.x + area.w / 2, height - 4, 'center');
    text(context, boxes, 'title', y.title, 12, area.y + area.h / 2, 'center', true);
    context.strokeStyle = '#b8c0c9';
    context.strokeRect(area.x + 0.5, area.y + 0.5, area.w - 1, area.h - 1);
    context.save();
    context.beginPath();
    context.rect(area.x, area.y, area.w, area.h);
    context.clip();
    const points = figure.paint(context, sx, sy, boxes);
    context.restore();
    return { boxes: boxes, points: points };
  }

  // Decades over [low, high], and the 2 and 5 between them where there are few decades.
  function logTicks(low, high) {
    const ticks = [];
    const decades = Math.log10(high / low);
    for (let power = Math.floor(Math.log10(low)); Math.pow(10, power) <= high; ++power) {
      for (const f of decades < 2.5 ? [1, 2, 5] : [1]) {
        const v = f * Math.pow(10, power);
        if (v >= low && v <= high) ticks.push({ v: v, label: tickLabel(v, Math.min(v, Math.pow(10, power))) });
      }
    }
    return ticks;
  }

  // Every drawing of the page's own, by canvas id: how to draw it again, and what the last drawing left.

  const unpackSamples = (samples) => ({ t: unpack(samples.t), x: unpack(samples.x), y: unpack(samples.y) });

  // Where the samples put the mirror at `t` (between two samples, on the line joining them).
  function pointAt(samples, t) {
    const i = lowerBound(samples.t, t);
    if (i === 0 || i >= samples.t.length) return null;
    const f = (t - samples.t[i - 1]) / (samples.t[i] - samples.t[i - 1]);
    return [samples.x[i - 1] + f * (samples.x[i] - samples.x[i - 1]), samples.y[i - 1] + f * (samples.y[i] - samples.y[i - 1])];
  }

  // The symbols of the close-ups, also drawn in their key: 'point' (a commanded point), 'gate' (where the gate
  // switched, filled with `fill`, yellow by default) and 'suggested'.
  function marker(context, x, y, kind, fill) {
    context.save();
    context.lineWidth = 2;
    context.beginPath();
    if (kind === 'gate') {
      context.moveTo(x, y - 6); context.lineTo(x + 6, y); context.lineTo(x, y + 6); context.lineTo(x - 6, y);
      context.closePath();
      context.fillStyle = fill || '#ffd54f';
      context.fill();
      context.strokeStyle = '#1d232b';
    } else {
      context.arc(x, y, kind === 'point' ? 5 : 7, 0, 2 * Math.PI);
      context.strokeStyle = kind === 'point' ? '#1d232b' : '#7b1fa2';
      if (kind === 'suggested') context.setLineDash([3, 2]);
    }
    context.stroke();
    context.restore();
  }

  // A vertical line at time `t` with its name (if any) at the top (or the bottom) of the plot, on the side with room.
  function verticalLine(context, boxes, sx, sy, t, color, dash, name, top) {
    const x = sx(t);
    const area = context.canvas.clientWidth;
    context.save();
    context.strokeStyle = color;
    context.fillStyle = color;
    context.lineWidth = 2;
    context.setLineDash(dash);
    context.beginPath(); context.moveTo(x, 0); context.lineTo(x, context.canvas.clientHeight); context.stroke();
    const right = x + context.measureText(name).width + 8 < area - 12;
    if (name) text(context, boxes, 'note', name, right ? x + 4 : x - 4, top ? 20 : context.canvas.clientHeight - 42, right ? 'left' : 'right');
    context.restore();
  }

  const box = (rect) => [Math.round(rect.left + window.scrollX), Math.round(rect.top + window.scrollY),
    Math.round(rect.width), Math.round(rect.height)];

  return {
    unpack, known, fixed, us, wholeUs, ms, units, share, doseOf, dose, median, lowerBound, niceTicks, tickLabel,
    logTicks, element, tableRows, byId, box, setPrinting, prepare, text, drawFigure, marker, verticalLine,
    unpackSamples, pointAt,
  };
})();
