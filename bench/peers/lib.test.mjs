// The measures behind the comparison: a wrong evaluator or front reading would print wrong
// figures without failing, so they are pinned down here (node --test).
import assert from 'node:assert/strict';
import { test } from 'node:test';

import { angleDegrees, bezierValueAt, channelErrors, firstDrivenChild, keysAtError,
         linearValueAt, mapFromSetup, median, paretoFront, playedSegment,
         svgLogPlot } from './lib.mjs';

const close = (actual, expected, tolerance, what) =>
  assert.ok(Math.abs(actual - expected) <= tolerance, `${what}: ${actual} is not ${expected}`);

test('median', () => {
  // Odd counts take the middle, even counts the mean of the two middle values, in any order.
  assert.equal(median([5, 1, 3]), 3);
  assert.equal(median([4, 1, 3, 2]), 2.5);
  assert.equal(median([]), 0);
});

test('bezierValueAt solves for the curve parameter where x meets the time', () => {
  {
    // Control points on y = x but bunched towards the start: x(s) is not linear in s, so reading
    // the value at s = (t - x0) / (x3 - x0) would be wrong everywhere inside.
    const segment = [[0, 0], [0.05, 0.05], [0.1, 0.1], [1, 1]];
    for (const t of [0.1, 0.25, 0.5, 0.9]) close(bezierValueAt([segment], t), t, 1e-12, `t=${t}`);
  }
  {
    // A chain: each time reads its own segment, key times give the key values exactly, and the
    // ends hold outside the chain.
    const chain = [[[0, 0], [1, 2], [2, 4], [3, 6]], [[3, 6], [4, 6], [5, 6], [6, 6]]];
    close(bezierValueAt(chain, 1.5), 3, 1e-12, 'first segment');
    close(bezierValueAt(chain, 4.5), 6, 1e-12, 'second segment');
    assert.equal(bezierValueAt(chain, 3), 6);
    assert.equal(bezierValueAt(chain, -1), 0);
    assert.equal(bezierValueAt(chain, 7), 6);
    assert.equal(bezierValueAt([], 1), 0);
  }
});

test('Bezier segments play with their handles inside the segment', () => {
  // Handles reaching past the other end shrink along their direction; handles pointing back in
  // time lose their time offset only; handles inside stay as written.
  assert.deepEqual(playedSegment([[2, 10], [6, 110], [0, 14], [3, -4]]),
                   [[2, 10], [3, 35], [2, 2], [3, -4]]);
  assert.deepEqual(playedSegment([[2, 10], [1.5, 35], [3.5, 3], [3, -4]]),
                   [[2, 10], [2, 35], [3, 3], [3, -4]]);
  const inside = [[2, 10], [2.25, 12], [2.5, 0], [3, -4]];
  assert.deepEqual(playedSegment(inside), inside);
  // A segment looping back in time as written reads as its played form: one value per time.
  const looping = [[0, 0], [3, 9], [-2, 4], [1, 1]];
  const played = playedSegment(looping);
  for (const t of [0.1, 0.4, 0.5, 0.8])
    assert.equal(bezierValueAt([looping], t), bezierValueAt([played], t), `t=${t}`);
  assert.deepEqual(played, [[0, 0], [1, 3], [0, 2], [1, 1]]);
});

test('linearValueAt interpolates between kept points', () => {
  const points = [{ x: 0, y: 0 }, { x: 2, y: 4 }, { x: 3, y: 1 }];
  assert.equal(linearValueAt(points, 1), 2);
  assert.equal(linearValueAt(points, 2.5), 2.5);
  assert.equal(linearValueAt(points, 2), 4);
  // Outside the points the end values hold; [x, y] pairs read the same.
  assert.equal(linearValueAt(points, -5), 0);
  assert.equal(linearValueAt([[0, 1], [1, 3]], 9), 3);
});

test('channelErrors', () => {
  {
    // Largest and summed |error| at the input times, relative to the largest |value|.
    const errors = channelErrors([[0, 2], [1, -4], [2, 0]], (t) => (t === 1 ? -3 : 0));
    assert.deepEqual(errors, { largest: 2, sum: 3, relative: 0.5 });
  }
  {
    // A flat channel has no relative error.
    assert.equal(channelErrors([[0, 0], [1, 0]], () => 1).relative, null);
  }
});

test('keysAtError reads a sweep front', () => {
  const runs = [{ keys: 100, error: 1 }, { keys: 120, error: 2 }, { keys: 1, error: 100 }];
  // The dominated run (more keys at a larger error) is not part of the front.
  assert.deepEqual(paretoFront(runs).map((r) => r.keys), [100, 1]);
  // Log-log between neighbours: halfway in log error is halfway in log keys.
  close(keysAtError(runs, 10), 10, 1e-9, 'keys at error 10');
  assert.equal(keysAtError(runs, 1), 100);
  // Outside the errors the sweep reached there is no reading.
  assert.equal(keysAtError(runs, 0.5), null);
  assert.equal(keysAtError(runs, 200), null);
});

test('angleDegrees', () => {
  close(angleDegrees([1, 0, 0], [0, 3, 0]), 90, 1e-12, 'right angle');
  close(angleDegrees([1, 0, 0], [-2, 0, 0]), 180, 1e-12, 'opposite');
  // Tiny angles stay exact (an acos of the dot product would return 0 here).
  close(angleDegrees([1, 0, 0], [1, 1e-9, 0]), (1e-9 * 180) / Math.PI, 1e-20, 'tiny angle');
  assert.equal(angleDegrees([0, 0, 0], [1, 0, 0]), 0);
});

test('firstDrivenChild', () => {
  // 0 -> {1 -> {2}, 3, 4}: joint 0 takes its first accepted direct child (3, since 1 is not),
  // never a grandchild; joints without an accepted child get -1.
  const parents = [-1, 0, 1, 0, 0];
  assert.deepEqual(firstDrivenChild(parents, (j) => j !== 1), [3, 2, -1, -1, -1]);
});

test('svgLogPlot', () => {
  const svg = svgLogPlot({
    title: 'keys <against> error', xLabel: 'largest error', yLabel: 'keys kept',
    series: [{ name: 'a', color: '#f00', points: [{ x: 0.1, y: 100 }, { x: 1, y: 10 }] },
             { name: 'b & c', color: '#00f', points: [{ x: 0, y: 5 }, { x: 10, y: 0 }] }],
  });
  // Labels and legend are there and escaped; a series whose points cannot sit on log axes
  // draws no line but keeps its legend entry.
  assert.match(svg, /keys &lt;against&gt; error/);
  assert.match(svg, />largest error</);
  assert.match(svg, />keys kept</);
  assert.match(svg, />b &amp; c</);
  assert.equal(svg.match(/<polyline/g).length, 1);
  assert.equal(svg.match(/<circle/g).length, 2);
});

test('mapFromSetup pairs target joints with source joints through the association', () => {
  const tree = (id, name, children = []) => ({ _objectID: id, _objectName: name, children });
  const setup = { solverConfiguration: {
    _sourceCharacter: { SkeletonRoot: tree('s0', 'Hips', [tree('s1', 'Spine'), tree('s2', 'Leg')]) },
    _targetCharacter: { SkeletonRoot: tree('t0', 'pelvis', [tree('t1', 'thigh'),
                                                            tree('t2', 'spine')]) },
    // Both directions, as the set-up stores them; the unpaired source leg is left out.
    _associationSourceTarget: { _uuidAssTable: [['s0', 't0'], ['t0', 's0'], ['t2', 's1'],
                                                ['s1', 't2']] },
  } };
  // In the target's order, whatever the table's order.
  assert.deepEqual(mapFromSetup(setup), [['pelvis', 'Hips'], ['spine', 'Spine']]);
});
