// The settings that all scans share.
import { bindActions } from './actions.js';
import { bindArchives } from './archives.js';
import { bindFilesToScan } from './files-to-scan.js';
import { byId } from './form.js';

/** Fills the shared controls. Returns the checks to run before the form is sent. */
export function bindScanSettings(form, variables) {
  byId('backup').checked = variables.get('bScanOptionBackupFilesBeforeClean') === true;
  bindActions(form);
  return [bindFilesToScan(form, variables), bindArchives(form, variables)];
}
