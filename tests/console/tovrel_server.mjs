// Starts tovrel-server for the console's browser test and benchmark: a fresh database, both listeners
// on ephemeral ports of 127.0.0.1, the admin token from a file and the built console.
import { spawn } from 'node:child_process';
import path from 'node:path';
import readline from 'node:readline';

/**
 * Spawns `binary serve` and waits (at most waitMs) for its first line, which names its listeners.
 * Lines the server writes to standard error are appended to `log` as they come.
 * Resolves to { process, listen, admin } ("127.0.0.1:PORT" each); rejects when the server exits first.
 */
export async function startTovrelServer({ binary, db, tokenFile, dist, log, waitMs, sim }) {
  const argv = ['serve', '--db', db, '--listen', '127.0.0.1:0', '--admin-listen', '127.0.0.1:0',
    '--admin-token-file', tokenFile, '--console-dir', path.resolve(dist), '--access-log', 'off',
    '--webhook-allow-private', '--webhook-poll', '0.2'];
  // Previews: the simulator of the same build, over fewer devices than a real server runs.
  if (sim) argv.push('--preview-program', sim, '--preview-devices', '100');
  const child = spawn(binary, argv, { stdio: ['ignore', 'pipe', 'pipe'] });
  child.stderr.setEncoding('utf8');
  child.stderr.on('data', (d) => log.push(...d.split('\n').filter(Boolean)));
  let timer;
  try {
    const first = await Promise.race([
      new Promise((resolve, reject) => {
        readline.createInterface({ input: child.stdout }).once('line', resolve);
        child.once('exit', (code) => reject(new Error(`the server exited with status ${code}: ${log.slice(-5).join(' | ')}`)));
        child.once('error', reject);
      }),
      new Promise((_, reject) => {
        timer = setTimeout(() => reject(new Error(`the server's first line: no answer in ${waitMs} ms`)), waitMs);
      }),
    ]);
    child.stdout.resume();
    const line = JSON.parse(first);
    if (!line.listen || !line.admin) throw new Error(`the server's first line names no listen and admin address: ${first}`);
    return { process: child, listen: line.listen, admin: line.admin };
  } catch (e) {
    child.kill('SIGKILL');
    throw e;
  } finally {
    clearTimeout(timer);
  }
}
