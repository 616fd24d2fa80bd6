// The closing lines of run.sh: the ratios of this run's figures and whether each target is met,
// read from the JSON the two comparisons wrote into OUTDIR.
//
//   node summary.mjs OUTDIR
import { readFileSync } from 'node:fs';
import { basename, join } from 'node:path';

import { formatNumber } from './lib.mjs';

const out = process.argv[2];
if (!out) throw new Error('summary.mjs: OUTDIR is required');
const retarget = JSON.parse(readFileSync(join(out, 'retarget.json'), 'utf8'));
const reduce = JSON.parse(readFileSync(join(out, 'reduce.json'), 'utf8'));

const lines = ['== ratios measured in this run'];
for (const r of retarget) {
  const ratio = r.tarniFps / r.threeFps;
  lines.push(`retarget ${basename(r.source)} onto ${basename(r.target)}: tarni-ca ` +
             `${Math.round(r.tarniFps)} frames/s, three.js ${Math.round(r.threeFps)} frames/s: ` +
             `${ratio.toFixed(2)}x (target 10x: ${ratio >= 10 ? 'met' : 'missed'}); limb ` +
             `directions with equal rests ${r.agrees ? 'agree' : 'DISAGREE'} (largest ` +
             `${formatNumber(r.overall.equalRest.max)} deg), by default they differ by the rest ` +
             `alignment only ${r.matchesPrediction ? '(as predicted)' : '(NOT as predicted)'}`);
}
for (const s of reduce.speed) {
  lines.push(`reduce time per key, median over each sweep: tarni-ca ${formatNumber(s.ours)} ns, ` +
             `${s.peer} ${formatNumber(s.theirs)} ns: tarni-ca ${s.ratio.toFixed(2)}x as fast ` +
             `(target: faster; ${s.ratio > 1 ? 'met' : 'missed'}${s.everySetting
               ? ', at every setting' : ''})`);
}
const compared = reduce.against.filter((a) => a.fitKeys !== null);
const worse = compared.filter((a) => a.keys > a.fitKeys);
const ratios = compared.map((a) => a.keys / a.fitKeys);
lines.push(`reduce keys against fit-curve at equal largest error: tarni-ca/fit-curve from ` +
           `${formatNumber(Math.min(...ratios))} to ${formatNumber(Math.max(...ratios))} over ` +
           `${compared.length} strengths within fit-curve's range; more keys at ` +
           `${worse.length} (target: no more at every error; ${compared.length > 0 &&
           worse.length === 0 ? 'met' : 'missed'})`);
lines.push(`tables: ${join(out, 'retarget.md')}, ${join(out, 'reduce.md')}; plot: ` +
           `${join(out, 'reduce-keys-vs-error.svg')}`);
console.log(lines.join('\n'));
