// A gNMI client made with an independent gRPC stack (@grpc/grpc-js and
// @grpc/proto-loader, loading our .proto), and the processes the tests
// run: throwaway namespaces, the agents, intf-gnmid, traffic.
'use strict';
const path = require('node:path');
const fs = require('node:fs');
const { spawn, execFileSync } = require('node:child_process');

const modules = path.resolve(process.env.INTF_NODE_MODULES || 'node_modules');
function load() {
  try {
    const grpc = require(path.join(modules, '@grpc/grpc-js'));
    const loader = require(path.join(modules, '@grpc/proto-loader'));
    return { grpc, loader };
  } catch (e) {
    return { missing: `the independent gRPC client is not installed in ${modules} (${e.message.split('\n')[0]})` };
  }
}
const lib = load();

function gnmiService() {
  const def = lib.loader.loadSync(process.env.INTF_GNMI_PROTO, {
    keepCase: true, longs: String, enums: String, defaults: false, oneofs: true,
  });
  return lib.grpc.loadPackageDefinition(def).gnmi.gNMI;
}

function client(address, creds) {
  const Gnmi = gnmiService();
  return new Gnmi(address, creds || lib.grpc.credentials.createInsecure(), {
    'grpc.max_receive_message_length': 64 << 20,
  });
}

const call = (c, method, req) => new Promise((resolve, reject) => {
  c[method](req, (err, resp) => (err ? reject(err) : resolve(resp)));
});

// A path from its string form: /interfaces/interface[name=Loopback7]/state
function p(text) {
  const elem = [];
  for (const part of text.split('/').filter(Boolean)) {
    const m = /^([^[]+)((?:\[[^\]]+\])*)$/.exec(part);
    const key = {};
    for (const k of m[2].matchAll(/\[([^=]+)=([^\]]*)\]/g)) key[k[1]] = k[2];
    elem.push({ name: m[1], key });
  }
  return { elem };
}
// The string form of prefix + path, for matching updates.
function str(prefix, path) {
  const parts = [...((prefix && prefix.elem) || []), ...((path && path.elem) || [])];
  return '/' + parts.map((e) => e.name + Object.entries(e.key || {}).map(([k, v]) => `[${k}=${v}]`).join('')).join('/');
}
// The scalar of a TypedValue.
function value(v) {
  if (!v) return undefined;
  if (v.uint_val !== undefined) return BigInt(v.uint_val);
  if (v.string_val !== undefined) return v.string_val;
  if (v.bool_val !== undefined) return v.bool_val;
  if (v.json_ietf_val !== undefined) return JSON.parse(Buffer.from(v.json_ietf_val).toString());
  if (v.json_val !== undefined) return JSON.parse(Buffer.from(v.json_val).toString());
  return undefined;
}
// Every leaf update of a notification: { path, value, ts }.
function leaves(n) {
  return (n.update || []).map((u) => ({ path: str(n.prefix, u.path), value: value(u.val), ts: BigInt(n.timestamp) }));
}

// A subscription's stream, with everything it received.
class Stream {
  constructor(c, list) {
    this.responses = [];
    this.waiters = [];
    this.call = c.Subscribe();
    this.call.on('data', (r) => { this.responses.push(r); this.wake(); });
    this.call.on('error', (e) => { this.error = e; this.wake(); });
    this.call.on('status', (s) => { this.status = s; this.wake(); });
    this.call.on('end', () => { this.ended = true; this.wake(); });
    if (list) this.call.write({ subscribe: list });
  }
  wake() { for (const w of this.waiters.splice(0)) w(); }
  // Resolves once pred() holds; rejects after ms.
  until(pred, ms = 10000, what = 'condition') {
    return new Promise((resolve, reject) => {
      const check = () => {
        if (pred()) { clearTimeout(timer); resolve(); return true; }
        return false;
      };
      const timer = setTimeout(() => reject(new Error(`timed out waiting for ${what}; ` +
        `${this.responses.length} responses, status ${JSON.stringify(this.status || this.error)}`)), ms);
      if (check()) return;
      const loop = () => { if (!check()) this.waiters.push(loop); };
      this.waiters.push(loop);
    });
  }
  notifications() { return this.responses.filter((r) => r.update).map((r) => r.update); }
  syncs() { return this.responses.filter((r) => r.sync_response).length; }
  updates() { return this.notifications().flatMap(leaves); }
  close() { this.call.cancel(); }
}

// ---- processes -------------------------------------------------------------------------------

const bin = (name) => path.join(process.env.INTF_BIN, name);

class Procs {
  constructor() { this.children = []; this.cleanups = []; }
  start(program, args, opts = {}) {
    const child = spawn(program, args, { stdio: ['ignore', 'pipe', 'pipe'], ...opts });
    child.out = '';
    child.err = '';
    child.stdout.on('data', (d) => { child.out += d; });
    child.stderr.on('data', (d) => { child.err += d; });
    child.exited = new Promise((resolve) => child.on('exit', (code, sig) => resolve({ code, sig })));
    this.children.push(child);
    return child;
  }
  async stop(child) {
    if (child.exitCode === null && child.signalCode === null) child.kill('SIGKILL');
    await child.exited;
  }
  onCleanup(fn) { this.cleanups.push(fn); }
  async cleanup() {
    for (const c of this.children.reverse()) await this.stop(c);
    for (const fn of this.cleanups.reverse()) { try { fn(); } catch (e) { /* already gone */ } }
  }
}

// Resolves once pred() holds, polling; rejects after ms.
async function until(pred, ms = 10000, what = 'condition') {
  const end = Date.now() + ms;
  for (;;) {
    const v = await pred();
    if (v) return v;
    if (Date.now() > end) throw new Error(`timed out waiting for ${what}`);
    await new Promise((r) => setTimeout(r, 50));
  }
}

// intf-gnmid's address once it says where it serves.
async function gnmidAddress(child) {
  const m = await until(() => /serving gNMI on (\S+)/.exec(child.err), 10000, `intf-gnmid to start: ${child.err}`);
  return m[1];
}

// A throwaway namespace with its lo up, the two agents and intf-gnmid on
// it. Everything is named after this process so that runs side by side
// never meet; cleanup() removes it all.
async function world(procs, extraGnmidArgs = []) {
  const tag = `${process.pid}-${Math.floor(Math.random() * 1e6)}`;
  const ns = `intf-gnmi-${tag}`;
  const dir = fs.mkdtempSync('/tmp/intf-gnmi-');
  const prefix = `/intf-gnmi-${tag}-`;
  execFileSync('ip', ['netns', 'add', ns]);
  procs.onCleanup(() => execFileSync('ip', ['netns', 'del', ns]));
  procs.onCleanup(() => fs.rmSync(dir, { recursive: true, force: true }));
  procs.onCleanup(() => {
    for (const f of fs.readdirSync('/dev/shm')) if (('/' + f).startsWith(prefix)) fs.rmSync('/dev/shm/' + f);
  });
  execFileSync('ip', ['-n', ns, 'link', 'set', 'lo', 'up']);
  const conf = path.join(dir, 'intf.conf');
  // Ethernet9 is for a device a test makes and removes.
  fs.writeFileSync(conf, `Loopback7 device=lo netns=${ns} mtu=16000 description="gnmi test"\n` +
    `Ethernet9 device=gn0 netns=${ns}\n`);
  const w = { ns, dir, prefix, conf, configSock: path.join(dir, 'config.sock'), agentSock: path.join(dir, 'agent.sock') };
  w.configd = procs.start(bin('intf-configd'), ['--config', conf, '--socket', w.configSock]);
  w.agentArgs = ['--socket', w.agentSock, '--config-socket', w.configSock, '--config', conf,
    '--interval', '0.2', '--shm-prefix', prefix];
  w.agent = procs.start(bin('intf-agent'), w.agentArgs);
  w.gnmid = procs.start(bin('intf-gnmid'), ['--listen', '127.0.0.1:0', '--socket', w.agentSock,
    '--config-socket', w.configSock, '--shm-prefix', prefix, ...extraGnmidArgs]);
  w.address = await gnmidAddress(w.gnmid);
  return w;
}

// The kernel's own receive byte count of lo in the namespace.
function kernelRxBytes(ns) {
  const out = execFileSync('ip', ['-n', ns, '-s', '-j', 'link', 'show', 'lo']).toString();
  return BigInt(JSON.parse(out)[0].stats64.rx.bytes);
}

// The resident memory of a process, in kB.
function rssKb(pid) {
  const m = /VmRSS:\s+(\d+)/.exec(fs.readFileSync(`/proc/${pid}/status`, 'utf8'));
  return Number(m[1]);
}

module.exports = { lib, client, call, p, str, value, leaves, Stream, Procs, until, world, bin, kernelRxBytes, rssKb, gnmidAddress };
