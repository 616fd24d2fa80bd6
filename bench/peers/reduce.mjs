// Key reduction, tarni-ca against general curve simplifiers, on every channel of the shared clips.
//
//   node reduce.mjs --tarni TARNI-CA --driver PEERS_DRIVER --data DATA_DIR --out OUTDIR [--runs N]
//
// Every channel is one 2D polyline (time in frames, value), the same values on every side: the
// input is the host's own curve file of each clip, written by `tarni-ca reduce` at strength 0
// (which hands the curves back untouched), its times in seconds multiplied by the file's frame
// rate, as the host itself hands curves to its fitter. Each tool runs a sweep of its own knob:
//   - tarni-ca: the Bezier fitter command's strength s (its tolerance is 0.8·s³ of each channel's
//     largest |value|, measured in the fitter's 2D distance, time in frames);
//   - fit-curve and paper (Path.simplify): a least-squares cubic fit with an absolute 2D distance
//     tolerance e; both compare it with SQUARED distances, so they are handed e²;
//   - simplify-js: Douglas-Peucker (its high-quality mode) with distance tolerance e; the result
//     is linear between the kept points.
// For each run: the keys kept (Bezier chains: segments + 1), the largest vertical error at the
// input keys' times (every output evaluated at each frame time: Bezier segments as keyframe players
// play them, each handle limited to its segment's time span, by solving for the curve parameter
// where x = t; simplify-js linearly; tarni-ca's by the host's own evaluation, the same rule),
// that error relative to the channel's largest |value|, and the time per input key (median of
// several runs of the reduction call alone; input conversion and evaluation are not timed).
import { execFileSync } from 'node:child_process';
import { mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';

import { channelErrors, formatNumber, keysAtError, markdownTable, median, svgLogPlot,
         textTable } from './lib.mjs';
import { PEERS } from './peers.mjs';

const CLIPS = ['cmu/131_01_walk.bvh', 'cmu/01_01_jumps.bvh', 'reactidle/003_genuine_idle.bvh'];
const STRENGTHS = [0.05, 0.1, 0.15, 0.2, 0.3, 0.4, 0.5, 0.7, 1.0];
const TOLERANCES = [0.003, 0.01, 0.03, 0.1, 0.3, 1, 3, 10];

function parseArgs(argv) {
  const args = { runs: 3 };
  for (let i = 2; i < argv.length; i += 2) {
    const key = argv[i].replace(/^--/, '');
    if (!['tarni', 'driver', 'data', 'out', 'runs'].includes(key) || i + 1 >= argv.length)
      throw new Error(`reduce.mjs: unknown or incomplete option ${argv[i]}`);
    args[key] = key === 'runs' ? Number(argv[i + 1]) : argv[i + 1];
  }
  for (const key of ['tarni', 'driver', 'data', 'out'])
    if (!args[key]) throw new Error(`reduce.mjs: --${key} is required`);
  return args;
}

// Every channel of the clips as [[frame, v], ...], read from the host's curve files.
function loadChannels(args) {
  const channels = [];
  for (const clip of CLIPS) {
    const file = join(args.out, `${clip.replace(/.*\//, '').replace(/\.bvh$/, '')}.curves.json`);
    execFileSync(args.tarni, ['reduce', join(args.data, clip), '-o', file, '--strength', '0'],
                 { stdio: ['ignore', 'ignore', 'inherit'] });
    const curves = JSON.parse(readFileSync(file, 'utf8'));
    for (const curve of curves.curves) {
      const points = curve.keys.map((k) => [k.position[0] * curves.fps, k.position[1]]);
      channels.push({ name: `${clip}:${curve.name}`, points });
    }
  }
  return channels;
}

// One peer's sweep point: reduce every channel, measure, and time the reduction calls alone.
function runPeer(tool, tolerance, channels, runs) {
  let keysOut = 0, largest = 0, relative = 0, sum = 0, keysIn = 0, worst = '';
  const reduced = channels.map((channel) => tool.reduce(tool.prepare(channel.points), tolerance));
  channels.forEach((channel, c) => {
    keysIn += channel.points.length;
    keysOut += tool.keys(reduced[c]);
    const valueAt = tool.evaluator(reduced[c]);
    const errors = channelErrors(channel.points, valueAt);
    if (errors.largest > largest) worst = channel.name;
    largest = Math.max(largest, errors.largest);
    if (errors.relative !== null) relative = Math.max(relative, errors.relative);
    sum += errors.sum;
  });
  // The pass above also warmed the tool up; the timed passes follow.
  const times = [];
  for (let run = 0; run < runs; ++run) {
    // Input objects are made outside the timed region where a tool keeps them (paper's paths).
    const inputs = channels.map((channel) => tool.prepare(channel.points));
    const start = process.hrtime.bigint();
    for (const input of inputs) tool.reduce(input, tolerance);
    times.push(Number(process.hrtime.bigint() - start) * 1e-9);
  }
  const seconds = median(times);
  return { tool: tool.name, setting: tolerance, keysIn, keysOut, maxError: largest,
           maxErrorCurve: worst, maxRelativeError: relative, meanError: sum / keysIn,
           nsPerKey: (1e9 * seconds) / keysIn };
}

const COLORS = { 'tarni-ca': '#d62728', 'fit-curve': '#1f77b4', paper: '#2ca02c',
                 'simplify-js': '#ff7f0e' };

function main() {
  const args = parseArgs(process.argv);
  mkdirSync(args.out, { recursive: true });
  const channels = loadChannels(args);
  const keysIn = channels.reduce((n, c) => n + c.points.length, 0);

  const ours = JSON.parse(execFileSync(args.driver, [
    'reduce', '--strengths', STRENGTHS.join(','), '--runs', String(args.runs),
    ...CLIPS.map((clip) => join(args.data, clip))], { encoding: 'utf8' }));
  if (ours.keys !== keysIn)
    throw new Error(`reduce.mjs: the driver read ${ours.keys} keys, the curve files hold ${keysIn}`);
  // Strengths come back as the command's 32-bit floats: shown as they were asked for.
  const runs = ours.results.map((r) => ({ tool: 'tarni-ca', ...r,
                                          setting: Number(r.strength.toPrecision(6)) }));
  for (const tool of PEERS) {
    for (const tolerance of TOLERANCES) {
      const start = Date.now();
      runs.push(runPeer(tool, tolerance, channels, args.runs));
      // The curve fitters take minutes over the whole sweep: show that it moves.
      process.stderr.write(`  ${tool.name} e=${tolerance}: ${((Date.now() - start) / 1000).toFixed(1)} s\n`);
    }
  }

  const headers = ['tool', 'setting', 'keys kept', 'kept %', 'largest error', 'largest rel.',
                   'mean error', 'ns/key'];
  const rows = runs.map((r) => [
    r.tool, r.tool === 'tarni-ca' ? `s=${r.setting}` : `e=${r.setting}`, r.keysOut,
    ((100 * r.keysOut) / r.keysIn).toFixed(2), formatNumber(r.maxError),
    formatNumber(r.maxRelativeError), formatNumber(r.meanError), formatNumber(r.nsPerKey)]);

  // The targets, read off this run's figures.
  const byTool = (name) => runs.filter((r) => r.tool === name);
  const ourTimes = byTool('tarni-ca').map((r) => r.nsPerKey);
  const speed = PEERS.map((peer) => {
    const theirs = byTool(peer.name).map((r) => r.nsPerKey);
    return { peer: peer.name, ours: median(ourTimes), theirs: median(theirs),
             ratio: median(theirs) / median(ourTimes),
             everySetting: Math.max(...ourTimes) < Math.min(...theirs) };
  });
  const fit = byTool('fit-curve').map((r) => ({ keys: r.keysOut, error: r.maxError }));
  // The largest error is decided by a few hard spots (one-frame capture spikes); the mean error
  // shows the same fronts over all keys.
  const fitMean = byTool('fit-curve').map((r) => ({ keys: r.keysOut, error: r.meanError }));
  const against = byTool('tarni-ca').map((r) => ({
    strength: r.setting, keys: r.keysOut, error: r.maxError, fitKeys: keysAtError(fit, r.maxError),
    meanError: r.meanError, fitKeysMean: keysAtError(fitMean, r.meanError) }));
  const compared = against.filter((a) => a.fitKeys !== null);
  const comparedMean = against.filter((a) => a.fitKeysMean !== null);

  const lines = [];
  lines.push(`Key reduction: ${channels.length} channels, ${keysIn} keys (${CLIPS.join(', ')}); ` +
             `time = median of ${args.runs} runs, reduction call only, single thread`);
  lines.push('setting: s = tarni-ca strength, e = absolute distance tolerance (handed to ' +
             'fit-curve and paper as e², since they compare squared distances)');
  lines.push('errors: |output - input| at every input key time, in the channels\' own units ' +
             '(degrees, CMU units, metres); rel. = relative to the channel\'s largest |value|; ' +
             'Bezier handles played within their segment\'s time span, as keyframe players do');
  const table = textTable(headers, rows);
  const speedRows = speed.map((s) => [s.peer, formatNumber(s.theirs), formatNumber(s.ours),
                                      `${s.ratio.toFixed(1)}x`, s.everySetting ? 'yes' : 'no']);
  const speedHeaders = ['peer', 'peer ns/key (median)', 'tarni-ca ns/key (median)',
                        'tarni-ca faster by', 'faster at every setting'];
  const frontHeaders = ['strength', 'tarni-ca keys', 'largest error', 'fit-curve keys there',
                        'ratio', 'mean error', 'fit-curve keys there (mean)', 'ratio (mean)'];
  const ratio = (a, b) => (b === null ? '-' : (a / b).toFixed(2));
  const frontRows = against.map((a) => [
    a.strength, a.keys, formatNumber(a.error), a.fitKeys === null ? '-' : Math.round(a.fitKeys),
    ratio(a.keys, a.fitKeys), formatNumber(a.meanError),
    a.fitKeysMean === null ? '-' : Math.round(a.fitKeysMean), ratio(a.keys, a.fitKeysMean)]);
  const verdictSpeed = speed.every((s) => s.ratio > 1)
    ? 'met: faster per key than every peer (median over each sweep)'
    : `missed: slower per key than ${speed.filter((s) => s.ratio <= 1).map((s) => s.peer)
        .join(', ')} (median over each sweep)`;
  const fewer = compared.filter((a) => a.keys <= a.fitKeys).length;
  const fewerMean = comparedMean.filter((a) => a.keys <= a.fitKeysMean).length;
  const verdictKeys = `${fewer} of ${compared.length} tarni-ca runs within fit-curve's error ` +
    `range keep no more keys than fit-curve at the same largest error ` +
    `(${compared.length > 0 && fewer === compared.length ? 'met' : 'missed'}); ` +
    `at the same mean error: ${fewerMean} of ${comparedMean.length}`;

  const text = [...lines, '', table, '', 'Speed (time per input key):', textTable(speedHeaders,
    speedRows), `target ${verdictSpeed}`, '',
    'Keys against fit-curve at equal largest error (fit-curve\'s keys read off its sweep, ' +
    'log-log between neighbouring runs; "-" = outside its range):',
    textTable(frontHeaders, frontRows), `target: ${verdictKeys}`].join('\n');
  console.log(text);

  const svg = svgLogPlot({
    title: `Keys kept against largest error (${channels.length} channels, ${keysIn} keys)`,
    xLabel: 'largest |error| at the input keys (channel units: degrees, CMU units, metres)',
    yLabel: 'keys kept',
    series: ['tarni-ca', ...PEERS.map((p) => p.name)].map((name) => ({
      name, color: COLORS[name],
      points: byTool(name).map((r) => ({ x: r.maxError, y: r.keysOut })) })),
  });
  writeFileSync(join(args.out, 'reduce-keys-vs-error.svg'), svg);
  const svgMean = svgLogPlot({
    title: 'Keys kept against mean error over all input keys',
    xLabel: 'mean |error| at the input keys (channel units)',
    yLabel: 'keys kept',
    series: ['tarni-ca', ...PEERS.map((p) => p.name)].map((name) => ({
      name, color: COLORS[name],
      points: byTool(name).map((r) => ({ x: r.meanError, y: r.keysOut })) })),
  });
  writeFileSync(join(args.out, 'reduce-keys-vs-mean-error.svg'), svgMean);
  const md = ['# Key reduction against curve fitters', '', ...lines.map((l) => `${l}  `), '',
    markdownTable(headers, rows), '', '## Speed', '', markdownTable(speedHeaders, speedRows), '',
    `Target ${verdictSpeed}.`, '', '## Keys against fit-curve at equal error', '',
    markdownTable(frontHeaders, frontRows), '', `Target: ${verdictKeys}.`, '',
    '![keys kept against largest error](reduce-keys-vs-error.svg)', '',
    '![keys kept against mean error](reduce-keys-vs-mean-error.svg)', ''].join('\n');
  writeFileSync(join(args.out, 'reduce.md'), md);
  writeFileSync(join(args.out, 'reduce.json'), JSON.stringify({ runs, speed, against }, null, 1));
  console.log(`\nwritten: ${join(args.out, 'reduce.md')}, ${join(args.out, 'reduce-keys-vs-error.svg')}`);
}

main();
