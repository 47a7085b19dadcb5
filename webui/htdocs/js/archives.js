// Whether and how far a scan looks inside archives.
import { byId, check, enableWhile, selectOption } from './form.js';

export function bindArchives(form, variables) {
  const scan = byId('scan-archives');
  const limit = byId('size-limit');
  const stored = variables.get('sScanOptionCompressFileSize') ?? '0';

  scan.checked = variables.get('bScanOptionScanCompressed') === true;
  // The list counts from 1, the variable from 0; nothing stored yet arrives as -1.
  selectOption(byId('layers'), String(Math.max(0, variables.get('iScanOptionCompressionLayer') ?? 0) + 1));
  // Zero is the engine's own limit. It cannot be sent, but an empty field keeps it.
  limit.value = stored === '0' ? '' : stored;
  enableWhile(scan, byId('archive-limits'))();

  return () => (check(limit, 'size-limit-wrong', !scan.checked || limit.validity.valid) ? null : limit);
}
