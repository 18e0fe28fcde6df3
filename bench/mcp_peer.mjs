// The peer of bench/topics/mcp: a server of the protocol's official SDK with one tool, which lists
// the windows as such a server usually would, by a program.   node mcp_peer.mjs PACKAGES
import {execFile} from 'node:child_process';
import {createRequire} from 'node:module';
import {join} from 'node:path';
import {pathToFileURL} from 'node:url';
import {promisify} from 'node:util';

const require = createRequire(join(process.argv[2], 'package.json'));
const load = async name => import(pathToFileURL(require.resolve(name)));
const {McpServer} = await load('@modelcontextprotocol/sdk/server/mcp.js');
const {StdioServerTransport} = await load('@modelcontextprotocol/sdk/server/stdio.js');

const run = promisify(execFile);
const server = new McpServer({name: 'peer', version: '1'});
server.registerTool('list_windows', {description: 'Lists the open windows.'}, async () => {
  const {stdout} = await run('wmctrl', ['-lGpx']);
  return {content: [{type: 'text', text: stdout}]};
});
await server.connect(new StdioServerTransport());
