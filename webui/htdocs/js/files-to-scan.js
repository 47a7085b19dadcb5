// Which files a scan looks into: by their real type, all, or by extension.
import { byId, check, enableWhile } from './form.js';

const ALL = 0;
const CUSTOM = 1;
const SMART = 2;

/** The choice that a stored setting means. A default list without extensions of one's own is stored as "all files". */
function storedChoice(list, useDefaultList) {
  if (list === ALL && useDefaultList) return CUSTOM;
  return list;
}

/** Extensions as the service takes them: no dots, no blanks, separated by semicolons, each once. */
export function tidyExtensions(text) {
  const names = text.split(/[\s,;:]+/).map((name) => name.replace(/^\.+/, '')).filter(Boolean);
  return [...new Set(names)].join(';');
}

const allowed = (extensions) => extensions === '' || /^[\p{L}\p{N}_\-+~#$!?*;.]+$/u.test(extensions);

export function bindFilesToScan(form, variables) {
  const custom = byId('files-custom');
  const defaultList = byId('default-list');
  const extensions = byId('extensions');
  const useDefaultList = variables.get('bScanOptionIncludeHVExtList') === true;
  const choice = storedChoice(variables.get('ScanOptionIncludeExtList'), useDefaultList);

  byId('files-all').checked = choice === ALL;
  custom.checked = choice === CUSTOM;
  byId('files-smart').checked = choice === SMART;
  defaultList.checked = useDefaultList;
  extensions.value = variables.get('ScanOptionIncludeExtListString') ?? '';
  enableWhile(custom, byId('custom-files'))();

  return () => {
    extensions.value = tidyExtensions(extensions.value);
    const inUse = custom.checked;
    const given = !inUse || defaultList.checked || extensions.value !== '';
    const valid = !inUse || allowed(extensions.value);
    check(extensions, 'extensions-empty', given);
    check(extensions, 'extensions-wrong', valid);
    return given && valid ? null : extensions;
  };
}
