// An assistant's session with a real editor, through a client that is not ours. Run on a private
// desktop:  node session.mjs BUNDLE PACKAGES
import assert from 'node:assert/strict';
import {execFileSync, spawn} from 'node:child_process';
import {once} from 'node:events';
import {cpSync, mkdtempSync, readFileSync, writeFileSync} from 'node:fs';
import {createRequire} from 'node:module';
import {join} from 'node:path';
import {createInterface} from 'node:readline';
import {setTimeout as pause} from 'node:timers/promises';
import {fileURLToPath, pathToFileURL} from 'node:url';

const [built, packages] = process.argv.slice(2);
const require = createRequire(join(packages, 'package.json'));
const load = async name => import(pathToFileURL(require.resolve(name)));
const {Client} = await load('@modelcontextprotocol/sdk/client/index.js');
const {StdioClientTransport} = await load('@modelcontextprotocol/sdk/client/stdio.js');
const Ajv2020 = require('ajv/dist/2020.js').default;

const folder = mkdtempSync(join(process.env.HOME, 'session-'));
// An application of its own: a companion ends the helpers that earlier runs of the same left behind.
const bundle = join(folder, 'Vesko Companion.app');
cpSync(built, bundle, {recursive: true});
const about = join(bundle, 'Contents/Info.plist');
writeFileSync(about, readFileSync(about, 'utf8').replace(
  /(<key>CFBundleIdentifier<\/key>\s*<string>)[^<]*/, `$1com.vesko.test.${process.pid}`));
const veskoctl = join(bundle, 'Contents/Resources/veskoctl');
const letter = join(folder, 'letter.txt');
const picture = join(folder, 'picture.jpg');
const photo = '5E6F7A8B-1234-4CDE-9F01-23456789ABCD';
const children = [];
const start = (command, ...words) => {
  const child = spawn(command, words, {stdio: ['ignore', 'inherit', 'inherit']});
  children.push(child);
  return child;
};
const startCompanion = () => start(join(bundle, 'Contents/MacOS/VeskoCompanion'));
const end = async child => {
  if (child.exitCode === null && child.signalCode === null) {
    child.kill();
    await once(child, 'exit');
  }
};
// What another process does in its own time, for half a minute.
const until = async (what, condition) => {
  for (let i = 0; i < 600; ++i) {
    const value = await condition();
    if (value) return value;
    await pause(50);
  }
  assert.fail(`not within half a minute: ${what}`);
};

const client = new Client({name: 'session', version: '1'});
const call = (name, args = {}, options = {}) =>
  client.callTool({name, arguments: args}, undefined, options);
const text = result => result.content.at(-1).text;
const ok = async (name, args, options) => {
  const result = await call(name, args, options);
  assert.equal(result.isError, false, `${name}: ${text(result)}`);
  return result;
};
const confirmed = async (name, args) => {
  const result = await ok(name, args);
  assert.equal(result.structuredContent.outcome, 'confirmed', `${name}: ${text(result)}`);
};

async function theClientAndItsSchemas() {
  await client.connect(new StdioClientTransport({command: veskoctl, args: ['mcp'],
                                                 env: {...process.env}}));
  const {tools} = await client.listTools();
  assert(JSON.stringify(tools).length < 20_000);
  const ajv = new Ajv2020({strict: true, allErrors: true});
  for (const tool of tools) {
    ajv.compile(tool.inputSchema);
    if (tool.outputSchema) ajv.compile(tool.outputSchema);
    assert.equal(typeof tool.annotations.readOnlyHint, 'boolean', tool.name);
  }
  await client.ping();
  await assert.rejects(call('no_such_tool'), /-32602/);
}

async function withoutACompanion() {
  const result = await call('list_windows');
  assert(result.isError);
  assert.match(text(result), /Ask the user to start/);
}

async function anEditorIsOperated() {
  // It was started a moment ago: at first there is no such application.
  await ok('wait_for_element', {bundle_id: 'org.xfce.mousepad', title: 'Document', timeout: 30});
  const {structuredContent: {windows: [window]}} =
    await ok('list_windows', {bundle_id: 'org.xfce.mousepad'});
  const id = window.window_id;
  await confirmed('control_window', {window_id: id, action: 'move', x: 60, y: 80});
  await confirmed('control_window', {window_id: id, action: 'resize', w: 700, h: 500});
  await confirmed('control_window', {window_id: id, action: 'focus'});
  assert.equal(execFileSync('xdotool', ['getactivewindow'], {encoding: 'utf8'}).trim(), `${id}`);

  const snapshot = text(await ok('desktop_snapshot'));
  const tree = text(await ok('desktop_snapshot', {format: 'json'}));
  assert.match(snapshot, /^window ".*letter.txt.* 60,80 700x500 \[e\d+\]\n/);
  assert.match(snapshot, /^ *menu "File" .*\[e\d+\]$/m);
  assert(snapshot.length * 5 < tree.length, `${snapshot.length} beside ${tree.length}`);
  JSON.parse(tree);

  await confirmed('type_text', {text: 'Grüße, 世界 👋 '});
  await confirmed('type_text', {text: 'by way of the clipboard', method: 'paste'});
  await ok('press_key', {keys: 'ctrl+s'});
  await until('the letter is saved',
              () => readFileSync(letter, 'utf8').includes('Grüße, 世界 👋 by way of the clipboard'));
  await confirmed('set_clipboard', {text: 'held'});
  assert.equal((await ok('get_clipboard')).structuredContent.text, 'held');

  // What is seen can be clicked: the menu by its pixels in a capture of the window.
  const {structuredContent: {elements: [menu]}} =
    await ok('find_elements', {bundle_id: 'org.xfce.mousepad', title: 'Document', limit: 5});
  const picture = await ok('capture_screen', {window_id: id, max_dim: 350});
  assert.equal(picture.content[0].mimeType, 'image/png');
  const {scale, origin, map} = picture.structuredContent;
  await confirmed('click', {x: (menu.frame.x + menu.frame.w / 2 - origin.x) * scale,
                            y: (menu.frame.y + menu.frame.h / 2 - origin.y) * scale, map});
  await ok('wait_for_element', {bundle_id: 'org.xfce.mousepad', title: 'Word Wrap'});
  await ok('press_key', {keys: 'escape', count: 2});
  await confirmed('element_action', {element: menu.element, action: 'press'});
  await ok('press_key', {keys: 'escape', count: 2});

  await confirmed('activate_application', {name: 'Mousepad'});
  const gone = await call('desktop_snapshot', {element: 'e999999'});
  assert(gone.isError && /new desktop_snapshot/.test(text(gone)));
}

async function aPhotoIsFetched() {
  const result = await ok('get_photo', {uuid: photo});
  const {data, mimeType} = result.content[0];
  assert.equal(mimeType, 'image/jpeg');
  assert(Buffer.from(data, 'base64').equals(readFileSync(picture)));
  assert.equal(result.structuredContent.transcoded, false);
}

async function waitingCanBeFollowedAndCancelled() {
  const abort = new AbortController();
  let told = 0;
  const waiting = call('wait_for_element',
                       {bundle_id: 'org.xfce.mousepad', title: 'never there', timeout: 60},
                       {signal: abort.signal, onprogress: () => ++told === 2 && abort.abort()});
  await assert.rejects(waiting);
  assert.equal(told, 2);
  await client.ping();
}

async function aClientWithoutAHandshake() {
  const server = spawn(veskoctl, ['mcp'], {stdio: ['pipe', 'pipe', 'inherit']});
  const lines = createInterface({input: server.stdout})[Symbol.asyncIterator]();
  const ask = async (method, params = {}) => {
    const _meta = {'io.modelcontextprotocol/protocolVersion': '2026-07-28',
                   'io.modelcontextprotocol/clientCapabilities': {}};
    server.stdin.write(JSON.stringify({jsonrpc: '2.0', id: method, method,
                                       params: {...params, _meta}}) + '\n');
    return JSON.parse((await lines.next()).value).result;
  };
  assert.deepEqual((await ask('server/discover')).supportedVersions, ['2026-07-28']);
  const list = await ask('tools/list');
  assert(list.ttlMs >= 0 && list.cacheScope === 'public' && list.resultType === 'complete');
  const found = await ask('tools/call',
                          {name: 'find_elements',
                           arguments: {bundle_id: 'org.xfce.mousepad', title: 'File', limit: 1, paths: true}});
  // A path, other than a reference, may go to another server.
  const {path} = found.structuredContent.elements[0];
  assert.match(text(await ok('desktop_snapshot', {element: path})), /^menu "File"/);
  server.stdin.end();
  assert.deepEqual(await once(server, 'exit'), [0, null]);
}

try {
  await theClientAndItsSchemas();
  await withoutACompanion();
  execFileSync(veskoctl, ['consent', 'grant', 'accessibility', 'screen_recording', 'photos']);
  execFileSync('convert', ['-size', '64x48', 'gradient:navy-gold', picture]);
  execFileSync(fileURLToPath(new URL('../../../scripts/tour-parts/photo_library.py', import.meta.url)),
               [join(process.env.HOME, 'Pictures/Photos Library.photoslibrary'), picture, photo]);
  let companion = startCompanion();
  writeFileSync(letter, '');
  start('mousepad', '--disable-server', letter);
  await until('the companion answers', async () => !(await call('status')).isError);
  await anEditorIsOperated();
  await aPhotoIsFetched();
  await waitingCanBeFollowedAndCancelled();
  await aClientWithoutAHandshake();
  await end(companion);
  await withoutACompanion();
  companion = startCompanion();
  await until('the companion is back', async () => !(await call('status')).isError);
  await confirmed('quit_application', {bundle_id: 'org.xfce.mousepad'});
  await client.close();
} finally {
  for (const child of children.reverse()) await end(child);
}
