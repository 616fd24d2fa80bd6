// Shared measures of the peer comparison: curve evaluation at frame times, the error and front
// arithmetic, limb angles, and the text, markdown and SVG forms the scripts print and write.
// Everything here is pure so that lib.test.mjs can pin it down.

// The middle value (the mean of the two middle values for an even count).
export function median(values) {
  if (values.length === 0) return 0;
  const sorted = [...values].sort((a, b) => a - b);
  const half = sorted.length >> 1;
  return sorted.length % 2 === 1 ? sorted[half] : 0.5 * (sorted[half - 1] + sorted[half]);
}

// Runs `work` once to warm up, then `runs` times; returns the median time in seconds. A `work` that
// sets up its own input first returns the nanoseconds of the part it timed itself; otherwise its
// whole call is timed.
export function timeMedian(runs, work) {
  work();
  const times = [];
  for (let run = 0; run < runs; ++run) {
    const start = process.hrtime.bigint();
    const inner = work();
    const ns = typeof inner === 'number' ? inner : Number(process.hrtime.bigint() - start);
    times.push(ns * 1e-9);
  }
  return median(times);
}

function bezierPoint(p, s) {
  const r = 1 - s;
  const b0 = r * r * r, b1 = 3 * r * r * s, b2 = 3 * r * s * s, b3 = s * s * s;
  return [b0 * p[0][0] + b1 * p[1][0] + b2 * p[2][0] + b3 * p[3][0],
          b0 * p[0][1] + b1 * p[1][1] + b2 * p[2][1] + b3 * p[3][1]];
}

// A Bezier segment [p0, p1, p2, p3] as keyframe players play it, and as the host evaluates its own
// reduced curves: each handle's time offset is limited to the segment's span. A handle reaching
// past the other end is shortened along its direction (its slope stays); one pointing back in
// time keeps its value offset and loses its time offset. Within the span x only rises, so every
// time has one value; least-squares fits through noisy keys can leave handles several segments
// long, and drawn as written such a segment would hold several values at one time.
export function playedSegment([p0, p1, p2, p3]) {
  const within = (end, handle, reach) => {
    let dx = handle[0] - end[0], dy = handle[1] - end[1];
    if (dx * reach < 0) dx = 0;
    if (Math.abs(dx) > Math.abs(reach)) {
      dy *= reach / dx;
      dx = reach;
    }
    return [end[0] + dx, end[1] + dy];
  };
  const span = p3[0] - p0[0];
  return [p0, within(p0, p1, span), within(p3, p2, -span), p3];
}

// The value at x = `t` of a chain of cubic Bezier segments [[p0, p1, p2, p3], ...] (points as
// [x, y], each segment starting where the previous one ends, in ascending x). The segment whose
// ends span t is played (`playedSegment`) and searched for the curve parameter where x meets t by
// bisection; outside the chain the end values hold.
export function bezierValueAt(segments, t) {
  if (segments.length === 0) return 0;
  if (t <= segments[0][0][0]) return segments[0][0][1];
  const last = segments[segments.length - 1];
  if (t >= last[3][0]) return last[3][1];
  let lo = 0, hi = segments.length - 1;
  while (lo < hi) {  // the first segment whose end lies past t
    const mid = (lo + hi) >> 1;
    if (segments[mid][3][0] <= t) lo = mid + 1; else hi = mid;
  }
  const p = playedSegment(segments[lo]);
  if (t === p[0][0]) return p[0][1];
  let a = 0, b = 1;
  for (let i = 0; i < 64; ++i) {
    const mid = 0.5 * (a + b);
    if (bezierPoint(p, mid)[0] < t) a = mid; else b = mid;
  }
  return bezierPoint(p, 0.5 * (a + b))[1];
}

// The value at `t` of the polyline through `points` ([x, y] or {x, y}, ascending x); the end
// values hold outside it.
export function linearValueAt(points, t) {
  const x = (p) => (Array.isArray(p) ? p[0] : p.x);
  const y = (p) => (Array.isArray(p) ? p[1] : p.y);
  if (points.length === 0) return 0;
  if (t <= x(points[0])) return y(points[0]);
  if (t >= x(points[points.length - 1])) return y(points[points.length - 1]);
  let lo = 0, hi = points.length - 1;
  while (hi - lo > 1) {
    const mid = (lo + hi) >> 1;
    if (x(points[mid]) <= t) lo = mid; else hi = mid;
  }
  const a = points[lo], b = points[hi];
  return y(a) + (y(b) - y(a)) * (t - x(a)) / (x(b) - x(a));
}

// Errors of one reduced channel at its input keys' times: the largest and summed |reduced -
// input|, and the largest relative to the channel's largest |value| (null for a channel flat
// within 1e-5, where a relative error means nothing).
export function channelErrors(points, valueAt) {
  let largest = 0, sum = 0, scale = 0;
  for (const [, v] of points) scale = Math.max(scale, Math.abs(v));
  for (const [t, v] of points) {
    const error = Math.abs(valueAt(t) - v);
    largest = Math.max(largest, error);
    sum += error;
  }
  return { largest, sum, relative: scale > 1e-5 ? largest / scale : null };
}

// The runs of a sweep that no other run beats (fewer or equal keys at lower or equal error),
// ascending in error and so descending in keys.
export function paretoFront(runs) {
  const sorted = [...runs].sort((a, b) => a.error - b.error || a.keys - b.keys);
  const front = [];
  for (const run of sorted) {
    if (front.length === 0 || run.keys < front[front.length - 1].keys) front.push(run);
  }
  return front;
}

// The keys a sweep needs at `error`, read off its front by interpolating linearly in log error
// and log keys between the two runs around it; null outside the errors the sweep reached.
export function keysAtError(runs, error) {
  const front = paretoFront(runs).filter((r) => r.error > 0 && r.keys > 0);
  if (front.length === 0 || error < front[0].error || error > front[front.length - 1].error)
    return null;
  for (let i = 0; i + 1 < front.length; ++i) {
    const a = front[i], b = front[i + 1];
    if (error > b.error) continue;
    if (error === a.error) return a.keys;
    const f = (Math.log(error) - Math.log(a.error)) / (Math.log(b.error) - Math.log(a.error));
    return Math.exp(Math.log(a.keys) + f * (Math.log(b.keys) - Math.log(a.keys)));
  }
  return front[front.length - 1].keys;
}

// The angle between two 3D vectors in degrees (0 when either has no length); atan2 keeps it exact
// near 0 and 180 degrees, where acos of a dot product loses digits.
export function angleDegrees(a, b) {
  const cx = a[1] * b[2] - a[2] * b[1];
  const cy = a[2] * b[0] - a[0] * b[2];
  const cz = a[0] * b[1] - a[1] * b[0];
  const cross = Math.hypot(cx, cy, cz);
  const dot = a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
  if (cross === 0 && dot === 0) return 0;
  return (Math.atan2(cross, dot) * 180) / Math.PI;
}

// For each joint the first of its direct children (in file order) that `isDriven` accepts, or
// -1; `parents` gives each joint's parent index (-1 for the root).
export function firstDrivenChild(parents, isDriven) {
  const child = parents.map(() => -1);
  parents.forEach((parent, j) => {
    if (parent >= 0 && child[parent] < 0 && isDriven(j)) child[parent] = j;
  });
  return child;
}

// Fixed-width text table: numbers right-aligned, text left-aligned.
export function textTable(headers, rows) {
  const cells = [headers, ...rows].map((row) => row.map((cell) => String(cell)));
  const widths = headers.map((_, c) => Math.max(...cells.map((row) => row[c].length)));
  const numeric = headers.map((_, c) => rows.every((row) => typeof row[c] === 'number' ||
                                                   /^[-+0-9.e×x%]+$/.test(String(row[c]))));
  const line = (row) => row.map((cell, c) => (numeric[c] ? cell.padStart(widths[c])
                                                         : cell.padEnd(widths[c]))).join('  ');
  return [line(cells[0]), widths.map((w) => '-'.repeat(w)).join('  '),
          ...cells.slice(1).map(line)].join('\n').replace(/ +$/gm, '');
}

export function markdownTable(headers, rows) {
  const line = (row) => `| ${row.map((cell) => String(cell)).join(' | ')} |`;
  return [line(headers), line(headers.map(() => '---')), ...rows.map(line)].join('\n');
}

// Shortest fixed or exponent form with `digits` significant digits.
export function formatNumber(value, digits = 3) {
  if (value === null || value === undefined || Number.isNaN(value)) return '-';
  if (value === 0) return '0';
  const magnitude = Math.abs(value);
  if (magnitude >= 1e-3 && magnitude < 1e6) return String(Number(value.toPrecision(digits)));
  return value.toExponential(digits - 1);
}

const escapeXml = (text) => String(text).replace(/&/g, '&amp;').replace(/</g, '&lt;')
  .replace(/>/g, '&gt;');

// Nice tick values of a log axis spanning [min, max]: powers of ten, with 2 and 5 between them
// when the span is short.
function logTicks(min, max) {
  const ticks = [];
  const few = Math.log10(max / min) < 3;
  for (let e = Math.floor(Math.log10(min)); e <= Math.ceil(Math.log10(max)); ++e) {
    for (const m of few ? [1, 2, 5] : [1]) {
      const v = m * 10 ** e;
      if (v >= min * 0.999 && v <= max * 1.001) ticks.push(v);
    }
  }
  return ticks;
}

// A line plot with log axes: `series` is [{name, color, points: [{x, y}]}] (non-positive values
// are left out); axes labelled, a legend, and a title.
export function svgLogPlot({ title, xLabel, yLabel, series, width = 760, height = 480 }) {
  const left = 86, right = 200, top = 40, bottom = 56;
  const all = series.flatMap((s) => s.points).filter((p) => p.x > 0 && p.y > 0);
  const pad = (lo, hi) => [lo / 1.25, hi * 1.25];
  const [x0, x1] = pad(Math.min(...all.map((p) => p.x)), Math.max(...all.map((p) => p.x)));
  const [y0, y1] = pad(Math.min(...all.map((p) => p.y)), Math.max(...all.map((p) => p.y)));
  const plotW = width - left - right, plotH = height - top - bottom;
  const sx = (x) => left + (plotW * Math.log(x / x0)) / Math.log(x1 / x0);
  const sy = (y) => top + plotH - (plotH * Math.log(y / y0)) / Math.log(y1 / y0);
  const f = (v) => v.toFixed(1);
  const out = [];
  out.push(`<svg xmlns="http://www.w3.org/2000/svg" width="${width}" height="${height}" ` +
           `viewBox="0 0 ${width} ${height}" font-family="sans-serif" font-size="12">`);
  out.push(`<rect width="${width}" height="${height}" fill="white"/>`);
  out.push(`<text x="${f(left + plotW / 2)}" y="22" text-anchor="middle" font-size="15">` +
           `${escapeXml(title)}</text>`);
  for (const v of logTicks(x0, x1)) {
    out.push(`<line x1="${f(sx(v))}" y1="${top}" x2="${f(sx(v))}" y2="${top + plotH}" ` +
             `stroke="#ddd"/>`);
    out.push(`<text x="${f(sx(v))}" y="${top + plotH + 16}" text-anchor="middle">` +
             `${formatNumber(v)}</text>`);
  }
  for (const v of logTicks(y0, y1)) {
    out.push(`<line x1="${left}" y1="${f(sy(v))}" x2="${left + plotW}" y2="${f(sy(v))}" ` +
             `stroke="#ddd"/>`);
    out.push(`<text x="${left - 6}" y="${f(sy(v) + 4)}" text-anchor="end">${formatNumber(v)}</text>`);
  }
  out.push(`<rect x="${left}" y="${top}" width="${plotW}" height="${plotH}" fill="none" ` +
           `stroke="black"/>`);
  out.push(`<text x="${f(left + plotW / 2)}" y="${height - 14}" text-anchor="middle">` +
           `${escapeXml(xLabel)}</text>`);
  out.push(`<text transform="translate(18 ${f(top + plotH / 2)}) rotate(-90)" ` +
           `text-anchor="middle">${escapeXml(yLabel)}</text>`);
  series.forEach((s, i) => {
    const points = s.points.filter((p) => p.x > 0 && p.y > 0).sort((a, b) => a.x - b.x);
    if (points.length > 0) {
      out.push(`<polyline fill="none" stroke="${s.color}" stroke-width="2" points="` +
               `${points.map((p) => `${f(sx(p.x))},${f(sy(p.y))}`).join(' ')}"/>`);
      for (const p of points)
        out.push(`<circle cx="${f(sx(p.x))}" cy="${f(sy(p.y))}" r="3" fill="${s.color}"/>`);
    }
    const ly = top + 14 + i * 20;
    out.push(`<line x1="${left + plotW + 14}" y1="${ly}" x2="${left + plotW + 40}" y2="${ly}" ` +
             `stroke="${s.color}" stroke-width="2"/>`);
    out.push(`<text x="${left + plotW + 46}" y="${ly + 4}">${escapeXml(s.name)}</text>`);
  });
  out.push('</svg>');
  return out.join('\n') + '\n';
}

// The joint map of a solver set-up written by `tarni-ca retarget --save-setup`: [target joint,
// source joint] pairs in the target's pre-order, read from the association's node table (which
// holds each pair in both directions) and the two skeleton trees' names.
export function mapFromSetup(setup) {
  const config = setup.solverConfiguration;
  const names = (root) => {
    const out = new Map();
    const walk = (node) => {
      if (!node) return;
      out.set(node._objectID, node._objectName);
      for (const child of node.children ?? []) walk(child);
    };
    walk(root);
    return out;
  };
  const sources = names(config._sourceCharacter.SkeletonRoot);
  const targets = names(config._targetCharacter.SkeletonRoot);
  const partner = new Map();
  for (const [from, to] of config._associationSourceTarget._uuidAssTable) {
    if (targets.has(from) && sources.has(to)) partner.set(from, to);
  }
  return [...targets].filter(([uuid]) => partner.has(uuid))
    .map(([uuid, name]) => [name, sources.get(partner.get(uuid))]);
}
