// The page's pure parts, and its size budget; page.test.mjs drives the
// whole page in a browser.
import assert from 'node:assert/strict';
import { readdirSync, statSync } from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { typingKeyword } from '../../web/js/keyword.js';
import { fragmentPieces } from '../../web/js/marks.js';

test('the word being typed is a prefix only when it is a bare word of 3 or more', () => {
  const cases = [['tel', 'tel*'], ['te', 'te'], ['interrupt hand', 'interrupt hand*'],
    ['interrupt hand ', 'interrupt hand'], ['"open quo', '"open quo'], ['"a phrase" wor', '"a phrase" wor*'],
    ['saffron OR', 'saffron OR'], ['saffron AND', 'saffron AND'], ['mutex*', 'mutex*'],
    ['name:inod', 'name:inod*'], ['-exclu', '-exclu*'], ['foo.c', 'foo.c'], ['crème', 'crème*'],
    ['日本語', '日本語*'], ['   ', '']];
  for (const [typed, sent] of cases) assert.equal(typingKeyword(typed), sent, typed);
});

test('only the exact match tags become marks; everything else is text', () => {
  assert.deepEqual(fragmentPieces('a &lt;b&gt; <em>word</em> &amp; &quot;q&quot; &#39;s'), [
    { text: 'a <b> ', marked: false },
    { text: 'word', marked: true },
    { text: ' & "q" \'s', marked: false },
  ]);
  // Escaped tags stay text, and an entity is decoded once only.
  assert.deepEqual(fragmentPieces('&lt;em&gt;x&lt;/em&gt; &amp;lt;'), [
    { text: '<em>x</em> &lt;', marked: false },
  ]);
});

test('the page sent compressed stays under 150 KB', { skip: !process.env.KEST_WWW_DIR }, () => {
  const size = (dir) => readdirSync(dir, { withFileTypes: true }).reduce((sum, entry) => sum
    + (entry.isDirectory() ? size(join(dir, entry.name)) : entry.name.endsWith('.gz') ? statSync(join(dir, entry.name)).size : 0), 0);
  const total = size(process.env.KEST_WWW_DIR);
  assert.ok(total > 0 && total < 150 * 1024, `${total} bytes`);
});
