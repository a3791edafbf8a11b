// How numbers, dates and paths are shown.

const UNITS = ['B', 'KB', 'MB', 'GB', 'TB', 'PB'];

export function humanSize(bytes) {
  if (!Number.isFinite(bytes) || bytes < 0) return '';
  let value = bytes;
  let unit = 0;
  while (value >= 1024 && unit < UNITS.length - 1) {
    value /= 1024;
    unit += 1;
  }
  const digits = unit === 0 || value >= 100 ? 0 : 1;
  return `${value.toFixed(digits)} ${UNITS[unit]}`;
}

const DATE = new Intl.DateTimeFormat(undefined, { dateStyle: 'medium', timeStyle: 'short' });

export function humanDate(seconds) {
  if (!Number.isFinite(seconds) || seconds <= 0) return '';
  return DATE.format(new Date(seconds * 1000));
}

// The folder part of a path ("/public/library" of "/public/library/a.txt").
export function folderOf(path) {
  if (typeof path !== 'string') return '';
  const slash = path.lastIndexOf('/');
  return slash <= 0 ? '/' : path.slice(0, slash);
}

// File types by extension, as the index sorts them (for the icons).
const TYPES = {
  document: 'txt text md rst csv tsv log rtf pdf doc docx dot dotx odt ott xls xlsx ods ppt pptx odp pages numbers key epub htm html xhtml xml json yaml yml ini conf tex c h cc cpp cxx hpp hh py pl sh java js ts go rs rb php s asm dts dtsi kconfig',
  photo: 'jpg jpeg png gif bmp tif tiff webp heic heif svg ico raw cr2 cr3 nef arw dng orf rw2 psd',
  video: 'mp4 m4v mkv avi mov wmv flv webm mpg mpeg m2ts mts 3gp vob ogv rm rmvb asf',
  audio: 'mp3 m4a aac flac wav ogg oga opus wma aiff aif ape alac mid midi amr',
};
const TYPE_OF = new Map();
for (const [type, list] of Object.entries(TYPES)) {
  for (const ext of list.split(' ')) if (!TYPE_OF.has(ext)) TYPE_OF.set(ext, type);
}

export function typeOf(extension, isDir) {
  if (isDir) return 'folder';
  return TYPE_OF.get(String(extension || '').toLowerCase()) || 'other';
}
