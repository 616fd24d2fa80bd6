// Retargeting, tarni-ca against three.js (BVHLoader and SkeletonUtils.retargetClip), headless.
//
//   node retarget.mjs --tarni TARNI-CA --driver PEERS_DRIVER --data DATA_DIR --out OUTDIR [--runs N]
//
// Both tools get the same joint map: the one tarni-ca's retarget builds from the body-part preset
// each skeleton picks, read from the set-up it saves (`--save-setup`; the driver that times it
// must report the same pairs), handed to three.js as its getBoneName. Frames per second: the whole parsed clip
// retargeted, median of several runs with the tools taking turns, single thread, parsing excluded (tarni-ca: solver set-up and
// every frame solved and turned into output rows; three.js: retargetClip, which samples the source
// clip and builds the output tracks). Agreement: for every driven joint with a driven child, the
// angle between the two outputs' world limb directions (joint to its first driven child that does
// not sit on it), every frame; end sites (all named ENDSITE by the loader) take no part.
//
// Where the two are defined to agree, and where they differ by design. three.js gives each driven
// bone the world rotation of its source bone. tarni-ca gives it the source bone's world rotation
// since the source's rest, applied on top of the target's rest. A BVH rest has every rotation zero,
// so with the target's rest used as read (--no-align-rest, equal rest orientations: identity on
// both sides) the two are the same transfer and the limb directions must agree to rounding. By
// default tarni-ca first swings the target's rest bones onto the source's rest directions (so arms
// hanging down and arms held level meet); three.js has no such step. The outputs then differ, on
// purpose, by exactly the angle between a target bone's rest direction as read and as aligned,
// the same in every frame: the script predicts that angle from the two rests and checks it.
import { execFileSync } from 'node:child_process';
import { mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import { basename, join } from 'node:path';

import { retargetClip } from 'three/examples/jsm/utils/SkeletonUtils.js';

import { angleDegrees, firstDrivenChild, formatNumber, mapFromSetup, markdownTable, median,
         textTable } from './lib.mjs';
import { loadThree, threePositions } from './threeside.mjs';

const PAIRS = [
  { source: 'cmu/131_01_walk.bvh', target: 'reactidle/003_genuine_idle.bvh' },
  { source: 'cmu/01_01_jumps.bvh', target: 'cmu/131_01_walk.bvh' },
];
// Rounding only: three.js keeps its tracks in 32-bit floats, tarni-ca writes Euler angles.
const AGREEMENT_DEGREES = 0.01;

function parseArgs(argv) {
  const args = { runs: 5 };
  for (let i = 2; i < argv.length; i += 2) {
    const key = argv[i].replace(/^--/, '');
    if (!['tarni', 'driver', 'data', 'out', 'runs'].includes(key) || i + 1 >= argv.length)
      throw new Error(`retarget.mjs: unknown or incomplete option ${argv[i]}`);
    args[key] = key === 'runs' ? Number(argv[i + 1]) : argv[i + 1];
  }
  for (const key of ['tarni', 'driver', 'data', 'out'])
    if (!args[key]) throw new Error(`retarget.mjs: --${key} is required`);
  return args;
}

// tarni-ca's output as world positions per frame, by the host's own forward kinematics.
function projectPositions(args, bvh) {
  const file = bvh.replace(/\.bvh$/, '.f64');
  const header = JSON.parse(execFileSync(args.driver, ['positions', bvh, file], { encoding: 'utf8' }));
  const buffer = readFileSync(file);
  const values = new Float64Array(buffer.buffer, buffer.byteOffset, buffer.byteLength / 8);
  const count = header.joints.length;
  return { ...header, at: (frame, joint) => values.subarray((frame * count + joint) * 3,
                                                            (frame * count + joint) * 3 + 3) };
}

const sub = (a, b) => [a[0] - b[0], a[1] - b[1], a[2] - b[2]];

function comparePair(args, pair) {
  const sourcePath = join(args.data, pair.source), targetPath = join(args.data, pair.target);
  const stem = `${basename(pair.source, '.bvh')}-onto-${basename(pair.target, '.bvh')}`;
  // Each call of the driver times tarni-ca's job three times after a warm-up run of its own and
  // reports the median: a run takes a few tens of milliseconds, and the first timed one of a new
  // process is still slow.
  const driverRun = () => JSON.parse(execFileSync(args.driver, ['retarget', sourcePath, targetPath,
                                                                '--runs', '3'], { encoding: 'utf8' }));
  const info = driverRun();
  // tarni-ca's outputs: its default, and with the target's rest as read (equal rests).
  const outputs = {};
  const setupFile = join(args.out, `${stem}.setup.json`);
  for (const [kind, extra] of [['default', ['--save-setup', setupFile]],
                               ['equalRest', ['--no-align-rest']]]) {
    const bvh = join(args.out, `${stem}${kind === 'default' ? '' : '-no-align-rest'}.bvh`);
    execFileSync(args.tarni, ['retarget', sourcePath, '--target', targetPath, '-o', bvh, ...extra],
                 { stdio: ['ignore', 'ignore', 'inherit'] });
    outputs[kind] = projectPositions(args, bvh);
  }

  // The map three.js gets is the one tarni-ca's retarget saved with its set-up; the driver timed
  // the same job only if it built the same map.
  const map = mapFromSetup(JSON.parse(readFileSync(setupFile, 'utf8')));
  if (JSON.stringify(map) !== JSON.stringify(info.map))
    throw new Error(`retarget.mjs: the driver's joint map differs from ${setupFile}`);
  const names = Object.fromEntries(map);  // target joint -> source joint
  const source = loadThree(readFileSync(sourcePath, 'utf8'));
  const target = loadThree(readFileSync(targetPath, 'utf8'));
  // retarget has no same-name fallback: every driven bone must be named; end sites (all called
  // ENDSITE) stay out. The root travels the source's path at the target's size, as in tarni-ca.
  const options = () => ({ getBoneName: (bone) => names[bone.name], hip: info.sourceRoot,
                           scale: info.heightRatio });
  let clip = null;
  const threeRun = () => {
    const start = process.hrtime.bigint();
    clip = retargetClip(target.holder, source.holder, source.clip, options());
    return Number(process.hrtime.bigint() - start) * 1e-9;
  };
  // The two tools take turns, one run each, so that a slow spell of the machine (a shared host's
  // speed drifts by tens of per cent within minutes) weighs on both figures alike.
  threeRun();  // warms up the JIT
  const tarniSeconds = [], tarniSolveSeconds = [], threeSeconds = [];
  for (let run = 0; run < args.runs; ++run) {
    const timed = driverRun();
    tarniSeconds.push(timed.secondsMedian);
    tarniSolveSeconds.push(timed.solveSecondsMedian);
    threeSeconds.push(threeRun());
  }
  info.framesPerSecond = info.frames / median(tarniSeconds);
  info.solveFramesPerSecond = info.frames / median(tarniSolveSeconds);
  const threeFps = info.frames / median(threeSeconds);

  const header = outputs.default;
  const driven = (j) => header.joints[j] in names;
  // A child sitting on its parent (a zero offset, common at hips in capture files) gives no
  // direction: the limb runs to the first driven child away from the joint.
  const rest = info.restPositions;
  const away = (j) => Math.hypot(...sub(rest[j], rest[header.parents[j]])) > 1e-9;
  const child = firstDrivenChild(header.parents, (j) => driven(j) && away(j));
  const three = threePositions(target, clip, header.joints);
  const frames = Math.min(three.length, header.frames);
  if (three.length !== header.frames)
    console.log(`note: three.js gave ${three.length} frames, tarni-ca ${header.frames}`);

  const rows = [];
  const overall = { default: { max: 0, sum: 0 }, equalRest: { max: 0, sum: 0 }, offPrediction: 0,
                    samples: 0 };
  header.joints.forEach((name, j) => {
    const c = child[j];
    if (!driven(j) || c < 0) return;
    const predicted = angleDegrees(sub(info.alignedRestPositions[c], info.alignedRestPositions[j]),
                                   sub(info.restPositions[c], info.restPositions[j]));
    const stats = {};
    let offPrediction = 0;
    for (const kind of ['default', 'equalRest']) {
      let max = 0, sum = 0;
      for (let f = 0; f < frames; ++f) {
        const ours = sub(outputs[kind].at(f, c), outputs[kind].at(f, j));
        const theirs = sub(three[f][c], three[f][j]);
        const angle = angleDegrees(ours, theirs);
        max = Math.max(max, angle);
        sum += angle;
        if (kind === 'default') offPrediction = Math.max(offPrediction, Math.abs(angle - predicted));
      }
      stats[kind] = { max, mean: sum / frames };
      overall[kind].max = Math.max(overall[kind].max, max);
      overall[kind].sum += sum;
    }
    overall.samples += frames;
    overall.offPrediction = Math.max(overall.offPrediction, offPrediction);
    rows.push([`${name} <- ${names[name]}`, header.joints[c], formatNumber(predicted),
               formatNumber(stats.default.max), formatNumber(stats.default.mean),
               formatNumber(offPrediction), formatNumber(stats.equalRest.max),
               formatNumber(stats.equalRest.mean)]);
  });
  for (const kind of ['default', 'equalRest']) overall[kind].mean = overall[kind].sum / overall.samples;
  rows.push(['all driven joints', '', '', formatNumber(overall.default.max),
             formatNumber(overall.default.mean), formatNumber(overall.offPrediction),
             formatNumber(overall.equalRest.max), formatNumber(overall.equalRest.mean)]);
  return { pair, stem, info, threeFps, frames, rows, overall,
           agrees: overall.equalRest.max < AGREEMENT_DEGREES,
           matchesPrediction: overall.offPrediction < AGREEMENT_DEGREES };
}

function main() {
  const args = parseArgs(process.argv);
  mkdirSync(args.out, { recursive: true });
  const results = PAIRS.map((pair) => comparePair(args, pair));

  const headers = ['joint <- source joint', 'limb to', 'by design (deg)', 'default max',
                   'default mean', '|default - by design| max', 'equal rests max',
                   'equal rests mean'];
  const fpsHeaders = ['run', 'frames', 'tarni-ca frames/s', '(solve only)', 'three.js frames/s',
                      'tarni-ca / three.js'];
  const fpsRows = results.map((r) => [
    `${basename(r.pair.source)} onto ${basename(r.pair.target)}`, r.info.frames,
    Math.round(r.info.framesPerSecond), Math.round(r.info.solveFramesPerSecond),
    Math.round(r.threeFps), `${(r.info.framesPerSecond / r.threeFps).toFixed(2)}x`]);
  const speedMet = results.every((r) => r.info.framesPerSecond >= 10 * r.threeFps);
  const text = [];
  const md = ['# Retargeting against three.js', ''];
  text.push(`Retargeting speed (whole parsed clip, median of ${args.runs} runs taken in turns, single thread):`);
  text.push(textTable(fpsHeaders, fpsRows));
  text.push(`target (tarni-ca at least 10x three.js frames/s): ${speedMet ? 'met' : 'missed'}`);
  md.push(`Speed: whole parsed clip, median of ${args.runs} runs taken in turns, single thread.`, '',
          markdownTable(fpsHeaders, fpsRows), '',
          `Target (at least 10x three.js frames/s): ${speedMet ? 'met' : 'missed'}.`, '');
  for (const r of results) {
    const title = `${r.pair.source} onto ${r.pair.target} (${r.frames} frames, presets ` +
                  `${r.info.sourcePreset} / ${r.info.targetPreset}, ${r.info.map.length} ` +
                  `joints mapped): angle between the world limb directions, degrees`;
    const verdict = `equal rests (--no-align-rest): ${r.agrees ? 'agree' : 'DISAGREE'} ` +
      `(largest ${formatNumber(r.overall.equalRest.max)} deg); default: differs by the rest ` +
      `alignment ${r.matchesPrediction ? 'as predicted' : 'NOT as predicted'} (largest ` +
      `deviation from the prediction ${formatNumber(r.overall.offPrediction)} deg)`;
    text.push('', title, textTable(headers, r.rows), verdict);
    md.push(`## ${title}`, '', markdownTable(headers, r.rows), '', `${verdict}.`, '');
  }
  const legend = 'by design = angle between the target bone at rest as read and as tarni-ca ' +
    'aligns it onto the source\'s rest (three.js does not align); equal rests = tarni-ca run ' +
    'with --no-align-rest, where both tools are the same transfer';
  text.push('', legend);
  md.push(`${legend}.`, '');
  console.log(text.join('\n'));
  writeFileSync(join(args.out, 'retarget.md'), md.join('\n'));
  writeFileSync(join(args.out, 'retarget.json'), JSON.stringify(results.map((r) => ({
    source: r.pair.source, target: r.pair.target, frames: r.frames, map: r.info.map,
    tarniFps: r.info.framesPerSecond, tarniSolveFps: r.info.solveFramesPerSecond,
    threeFps: r.threeFps, overall: r.overall, agrees: r.agrees,
    matchesPrediction: r.matchesPrediction })), null, 1));
}

main();
