// One search hit as a list item. Names, paths, owners and fragments are
// text; only the daemon's match marks become <mark> elements.
import { fileUrl } from './api.js';
import { folderOf, humanDate, humanSize, typeOf } from './format.js';
import { appendMarked } from './marks.js';

const SVG = 'http://www.w3.org/2000/svg';

function icon(doc, type) {
  const svg = doc.createElementNS(SVG, 'svg');
  svg.setAttribute('class', `icon icon-${type}`);
  svg.setAttribute('aria-hidden', 'true');
  const use = doc.createElementNS(SVG, 'use');
  use.setAttribute('href', `#i-${type}`);
  svg.append(use);
  return svg;
}

function element(doc, tag, className, text) {
  const node = doc.createElement(tag);
  if (className) node.className = className;
  if (text !== undefined) node.textContent = text;
  return node;
}

const TYPE_NAMES = {
  document: 'Document',
  photo: 'Photo',
  video: 'Video',
  audio: 'Audio',
  folder: 'Folder',
  other: 'File',
};

// The reference the server takes for the hit's file.
export function hitReference(hit) {
  return (hit.additional && hit.additional.path_ref) || hit.KESTMDPath || '';
}

export function renderHit(doc, hit, index) {
  const item = element(doc, 'li', 'hit');
  item.dataset.index = String(index);
  const isDir = hit.KESTMDIsDir === true;
  const type = typeOf(hit.KESTMDExtension, isDir);
  const readable = hit.readable !== false;
  const name = typeof hit.KESTMDFSName === 'string' ? hit.KESTMDFSName : '';
  const highlight = hit.highlight || {};

  const head = element(doc, 'div', 'hit-head');
  head.append(icon(doc, type));
  const title = readable && !isDir ? element(doc, 'a', 'hit-name') : element(doc, 'span', 'hit-name');
  title.append(element(doc, 'span', 'visually-hidden', `${TYPE_NAMES[type]}: `));
  const nameMarks = Array.isArray(highlight.KESTMDFSName) ? highlight.KESTMDFSName[0] : null;
  if (typeof nameMarks === 'string' && nameMarks !== '') appendMarked(title, nameMarks);
  else title.append(doc.createTextNode(name));
  if (title.tagName === 'A') {
    title.href = fileUrl(hitReference(hit));
    title.target = '_blank';
    title.rel = 'noopener noreferrer';
    title.dataset.action = 'open';
  } else {
    // Arrow keys reach hits without a link too.
    item.tabIndex = -1;
  }
  head.append(title);
  if (!readable) head.append(element(doc, 'span', 'badge', 'Not readable'));
  if (readable && !isDir) {
    const save = element(doc, 'a', 'hit-save', 'Download');
    save.href = fileUrl(hitReference(hit), true);
    save.setAttribute('download', '');
    save.dataset.action = 'download';
    save.setAttribute('aria-label', `Download ${name}`);
    head.append(save);
  }
  item.append(head);

  const meta = element(doc, 'div', 'hit-meta');
  const folder = folderOf(hit.KESTMDSharePath || hit.KESTMDPath);
  meta.append(element(doc, 'span', 'hit-folder', folder));
  const owner = hit.KESTMDOwnerUserName || (hit.KESTMDOwnerUserID ? `uid ${hit.KESTMDOwnerUserID}` : '');
  if (owner) meta.append(element(doc, 'span', 'hit-owner', owner));
  if (!isDir && Number.isFinite(hit.KESTMDFSSize)) {
    meta.append(element(doc, 'span', 'hit-size', humanSize(hit.KESTMDFSSize)));
  }
  if (Number.isFinite(hit.KESTMDMTime)) {
    const time = element(doc, 'time', 'hit-date', humanDate(hit.KESTMDMTime));
    time.dateTime = new Date(hit.KESTMDMTime * 1000).toISOString();
    meta.append(time);
  }
  item.append(meta);

  const fragments = Array.isArray(highlight.KESTMDTextContent) ? highlight.KESTMDTextContent : [];
  if (fragments.length > 0) {
    const list = element(doc, 'div', 'hit-text');
    for (const fragment of fragments) {
      if (typeof fragment !== 'string') continue;
      const line = element(doc, 'p', 'fragment');
      appendMarked(line, fragment);
      list.append(line);
    }
    item.append(list);
  }
  return item;
}
