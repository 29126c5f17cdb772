// intf-gnmid seen through a gRPC stack we did not build (@grpc/grpc-js
// loading our .proto), against the real agents on a throwaway network
// namespace with traffic on its lo. Needs root (namespaces); skips,
// saying why, without it or without the client library.
'use strict';
const { describe, it, before, after } = require('node:test');
const assert = require('node:assert');
const fs = require('node:fs');
const path = require('node:path');
const { execFileSync } = require('node:child_process');
const c = require('./client.js');

const skip = process.getuid() !== 0 ? 'needs root: makes network namespaces'
  : c.lib.missing ? c.lib.missing : false;
if (skip) console.log(`# skipped: ${skip}`);

const NS = 1000000000n;  // nanoseconds in a second
const codes = { INVALID_ARGUMENT: 3, NOT_FOUND: 5, RESOURCE_EXHAUSTED: 8, UNIMPLEMENTED: 12 };
const lo = '/interfaces/interface[name=Loopback7]';

async function rejects(promise, code, text) {
  await assert.rejects(promise, (e) => {
    assert.strictEqual(e.code, code, e.message);
    if (text) assert.match(e.details, text);
    return true;
  });
}

// Ends of a subscription that must fail: the status it ends with.
async function refused(cl, list) {
  const s = new c.Stream(cl, list);
  await s.until(() => s.error || s.status, 5000, 'the refusal');
  return s.error || s.status;
}

describe('intf-gnmid with the agents on a namespace', { skip }, () => {
  const procs = new c.Procs();
  let w, cl;
  before(async () => {
    w = await c.world(procs);
    cl = c.client(w.address);
    // Counters come with the device, the configured MTU once the agent has
    // the configuration: both before the tests look.
    await c.until(async () => {
      try {
        await c.call(cl, 'Get', { path: [c.p(`${lo}/state/counters/in-octets`)], encoding: 'PROTO' });
        const g = await c.call(cl, 'Get', { path: [c.p(`${lo}/state/mtu`)], encoding: 'PROTO' });
        return c.value(g.notification[0].update[0].val) === 16000n;
      } catch (e) { return false; }
    }, 10000, 'Loopback7 with counters and its configured MTU');
  });
  after(() => procs.cleanup());

  it('states its model, encodings and version', async () => {
    const cap = await c.call(cl, 'Capabilities', {});
    assert.deepStrictEqual(cap.supported_models, [
      { name: 'openconfig-interfaces', organization: 'OpenConfig working group', version: '2023-07-14' }]);
    assert.deepStrictEqual(cap.supported_encodings, ['JSON', 'JSON_IETF', 'PROTO']);
    assert.strictEqual(cap.gNMI_version, '0.10.0');
  });

  it('answers a Get of state and config in JSON_IETF and in typed values', async () => {
    const g = await c.call(cl, 'Get', { path: [c.p(`${lo}/state`), c.p(`${lo}/config`)], encoding: 'JSON_IETF' });
    assert.strictEqual(g.notification.length, 2);
    const [state, config] = g.notification.map((n) => c.value(n.update[0].val));
    assert.strictEqual(c.str(g.notification[0].prefix, g.notification[0].update[0].path), `${lo}/state`);
    assert.strictEqual(state['openconfig-interfaces:name'], 'Loopback7');
    assert.strictEqual(state['openconfig-interfaces:type'], 'iana-if-type:softwareLoopback');
    assert.strictEqual(state['openconfig-interfaces:mtu'], 16000);
    assert.strictEqual(state['openconfig-interfaces:oper-status'], 'UP');
    assert.strictEqual(state['openconfig-interfaces:description'], 'gnmi test');
    const counters = state['openconfig-interfaces:counters'];
    assert.match(counters['in-octets'], /^\d+$/, 'counter64 is a JSON string');
    // The kernel counts no broadcasts: absent, never 0.
    assert.ok(!('in-broadcast-pkts' in counters) && !('last-clear' in counters), JSON.stringify(counters));
    assert.deepStrictEqual(config, {
      'openconfig-interfaces:name': 'Loopback7', 'openconfig-interfaces:mtu': 16000,
      'openconfig-interfaces:description': 'gnmi test' });

    const t = await c.call(cl, 'Get', { prefix: c.p(lo), path: [c.p('state/mtu'), c.p('state/oper-status')],
      encoding: 'PROTO' });
    const got = t.notification.flatMap(c.leaves);
    assert.deepStrictEqual(got.map((l) => [l.path, l.value]), [
      [`${lo}/state/mtu`, 16000n], [`${lo}/state/oper-status`, 'UP']]);
    const now = BigInt(Date.now()) * 1000000n;
    assert.ok(got[0].ts > now - 5n * NS && got[0].ts <= now + NS, `timestamp ${got[0].ts} is nanoseconds of now`);

    const list = await c.call(cl, 'Get', { path: [c.p('/interfaces')], encoding: 'JSON_IETF' });
    assert.strictEqual(list.notification.length, 1, 'the list is one value');
    const entries = c.value(list.notification[0].update[0].val)['openconfig-interfaces:interface'];
    const mine = entries.find((e) => e.name === 'Loopback7');
    assert.strictEqual(mine.state['oper-status'], 'UP');
    assert.strictEqual(mine.config.mtu, 16000);

    const all = await c.call(cl, 'Get', { path: [c.p('/interfaces/interface[name=*]/config/name')],
      type: 'CONFIG', encoding: 'PROTO' });
    assert.ok(all.notification.flatMap(c.leaves).some((l) => l.value === 'Loopback7'));
  });

  it('refuses what it does not serve with the status codes of gRPC, naming the element', async () => {
    await rejects(c.call(cl, 'Get', { path: [c.p(`${lo}/state/bogus`)] }), codes.INVALID_ARGUMENT, /"bogus"/);
    await rejects(c.call(cl, 'Get', { path: [c.p('/interfaces/interface[ifindex=1]/state')] }),
      codes.INVALID_ARGUMENT, /no key "ifindex"/);
    await rejects(c.call(cl, 'Get', { path: [c.p('/interfaces/interface[name=eth0]/state')] }),
      codes.INVALID_ARGUMENT, /eth0/);
    await rejects(c.call(cl, 'Get', { path: [c.p('/interfaces/interface[name=Ethernet999]/state')] }),
      codes.NOT_FOUND, /Ethernet999/);
    await rejects(c.call(cl, 'Get', { path: [c.p(`${lo}/state/counters/in-broadcast-pkts`)] }),
      codes.NOT_FOUND, /in-broadcast-pkts/);
    await rejects(c.call(cl, 'Get', { path: [{ ...c.p(lo), origin: 'vendor' }] }), codes.INVALID_ARGUMENT, /vendor/);
    await rejects(c.call(cl, 'Get', { path: [c.p(lo)], encoding: 'ASCII' }), codes.UNIMPLEMENTED, /ASCII/);
    // A request larger than the 1 MiB served is refused before it is read.
    await rejects(c.call(cl, 'Get', { path: [{ elem: [{ name: 'x'.repeat(2 << 20) }] }] }), codes.RESOURCE_EXHAUSTED);
    await rejects(c.call(cl, 'Set', { update: [{ path: c.p(`${lo}/config/mtu`), val: { uint_val: 9000 } }] }),
      codes.UNIMPLEMENTED, /configuration agent/);

    let st = await refused(cl, { subscription: [{ path: c.p('/interfaces/interface/statistics') }] });
    assert.strictEqual(st.code, codes.INVALID_ARGUMENT);
    assert.match(st.details, /"statistics"/);
    st = await refused(cl, { subscription: [{ path: c.p(lo), mode: 7 }] });
    assert.strictEqual(st.code, codes.UNIMPLEMENTED, st.details);
    st = await refused(cl, { subscription: [{ path: c.p(`${lo}/state/counters`), mode: 'ON_CHANGE' }] });
    assert.strictEqual(st.code, codes.UNIMPLEMENTED, st.details);
    st = await refused(cl, { subscription: [{ path: c.p(lo), mode: 'SAMPLE', sample_interval: 1000 }] });
    assert.strictEqual(st.code, codes.INVALID_ARGUMENT);
    assert.match(st.details, /sample_interval/);
    // The agent kept its configuration: nothing was set.
    const mtu = await c.call(cl, 'Get', { path: [c.p(`${lo}/state/mtu`)], encoding: 'PROTO' });
    assert.strictEqual(c.leaves(mtu.notification[0])[0].value, 16000n);
  });

  it('filters a Get by data type and answers in plain JSON too', async () => {
    const get = async (type, encoding = 'PROTO') => (await c.call(cl, 'Get', { path: [c.p(lo)], type, encoding }))
      .notification.flatMap(c.leaves).map((l) => l.path.slice(lo.length + 1));
    const state = await get('STATE');
    assert.ok(state.includes('state/mtu') && state.includes('state/counters/in-octets'), state.join());
    assert.ok(!state.some((p) => p.startsWith('config/')), state.join());
    const oper = await get('OPERATIONAL');
    assert.ok(oper.includes('state/oper-status') && !oper.includes('state/mtu'), oper.join());
    const config = await get('CONFIG');
    assert.deepStrictEqual(config.sort(), ['config/description', 'config/mtu', 'config/name', 'name']);
    const json = await c.call(cl, 'Get', { path: [c.p(`${lo}/config/mtu`)], encoding: 'JSON' });
    assert.strictEqual(Buffer.from(json.notification[0].update[0].val.json_val).toString(), '16000');
  });

  it('keeps the subscription options: TARGET_DEFINED, suppress_redundant with heartbeat, updates_only', async () => {
    const td = new c.Stream(cl, { encoding: 'PROTO', subscription: [{ path: c.p(`${lo}/state`),
      mode: 'TARGET_DEFINED', sample_interval: String(NS / 5n) }] });
    await td.until(() => td.syncs() === 1, 5000, 'sync');
    const afterSync = td.responses.length;
    await td.until(() => td.responses.slice(afterSync).filter((r) => r.update).length >= 3, 5000, 'samples');
    const later = td.responses.slice(afterSync).flatMap((r) => (r.update ? c.leaves(r.update) : []));
    assert.ok(later.every((u) => u.path.includes('/counters/')), 'state goes on change, counters are sampled');
    td.close();

    const quiet = new c.Stream(cl, { encoding: 'PROTO', subscription: [{ path: c.p(`${lo}/state/oper-status`),
      mode: 'SAMPLE', sample_interval: String(NS / 5n), suppress_redundant: true }] });
    const beat = new c.Stream(cl, { encoding: 'PROTO', subscription: [{ path: c.p(`${lo}/state/oper-status`),
      mode: 'SAMPLE', sample_interval: String(NS / 5n), suppress_redundant: true, heartbeat_interval: String(NS / 2n) }] });
    await beat.until(() => beat.updates().length >= 3, 5000, 'heartbeats');
    assert.strictEqual(quiet.updates().length, 1, 'an unchanged leaf is sent once');

    const only = new c.Stream(cl, { encoding: 'PROTO', updates_only: true, subscription: [{
      path: c.p(`${lo}/state/counters/in-octets`), mode: 'SAMPLE', sample_interval: String(NS / 5n) }] });
    await only.until(() => only.updates().length >= 1, 5000, 'a sample');
    assert.ok(only.responses[0].sync_response, 'sync_response comes first, before any value');
    for (const x of [quiet, beat, only]) x.close();
  });

  it('ends a ONCE subscription after one pass, and answers each Poll with a pass', async () => {
    const once = new c.Stream(cl, { mode: 'ONCE', encoding: 'PROTO',
      subscription: [{ path: c.p(`${lo}/state/counters/in-octets`) }, { path: c.p(`${lo}/state/oper-status`) }] });
    await once.until(() => once.status, 5000, 'the end of ONCE');
    assert.strictEqual(once.status.code, 0);
    assert.strictEqual(once.syncs(), 1);
    assert.deepStrictEqual(once.updates().map((u) => u.path).sort(),
      [`${lo}/state/counters/in-octets`, `${lo}/state/oper-status`]);

    const poll = new c.Stream(cl, { mode: 'POLL', encoding: 'PROTO',
      subscription: [{ path: c.p(`${lo}/state/counters/in-pkts`) }] });
    await poll.until(() => poll.syncs() === 1, 5000, 'the first pass');
    const first = poll.updates().length;
    assert.strictEqual(first, 1);
    for (let i = 2; i <= 3; ++i) {
      poll.call.write({ poll: {} });
      await poll.until(() => poll.syncs() === i, 5000, `pass ${i}`);
    }
    assert.strictEqual(poll.updates().length, 3);
    assert.strictEqual(poll.status, undefined, 'a POLL stream stays open');
    poll.close();
  });

  it('sends oper-status and last-change on change, and nothing for unchanged leaves', async () => {
    // An interval given with ON_CHANGE changes nothing: no samples.
    const s = new c.Stream(cl, { encoding: 'PROTO', subscription: [{ path: c.p(`${lo}/state`), mode: 'ON_CHANGE',
      sample_interval: String(NS / 10n) }] });
    await s.until(() => s.syncs() === 1, 5000, 'sync');
    const initial = s.updates();
    assert.ok(initial.some((u) => u.path.endsWith('/oper-status') && u.value === 'UP'));
    assert.ok(!initial.some((u) => u.path.includes('/counters/')), 'counters are never sent on change');
    const atSync = s.responses.length;
    for (const [state, oper] of [['down', 'DOWN'], ['up', 'UP']]) {
      const before = s.responses.length;
      const t0 = BigInt(Date.now()) * 1000000n;
      execFileSync('ip', ['-n', w.ns, 'link', 'set', 'lo', state]);
      await s.until(() => s.responses.slice(before).some((r) => r.update &&
        c.leaves(r.update).some((u) => u.path === `${lo}/state/oper-status` && u.value === oper)), 5000, oper);
      const got = s.responses.slice(before).flatMap((r) => (r.update ? c.leaves(r.update) : []));
      assert.deepStrictEqual(got.map((u) => u.path).sort(), [`${lo}/state/last-change`, `${lo}/state/oper-status`]);
      const change = got.find((u) => u.path.endsWith('last-change')).value;
      const t1 = (BigInt(Date.now()) + 1n) * 1000000n;  // Date.now() is in whole milliseconds
      assert.ok(change >= t0 - NS && change <= t1, `last-change ${change} between ${t0} and ${t1}`);
    }
    await new Promise((r) => setTimeout(r, 500));
    const since = s.responses.slice(atSync).flatMap((r) => (r.update ? c.leaves(r.update) : []));
    assert.deepStrictEqual([...new Set(since.map((u) => u.path))].sort(),
      [`${lo}/state/last-change`, `${lo}/state/oper-status`], 'only what changed, in half a second after');
    s.close();
  });

  it('sends a deleted interface as a deletion', async () => {
    const s = new c.Stream(cl, { encoding: 'PROTO',
      subscription: [{ path: c.p('/interfaces/interface[name=Ethernet9]/state/oper-status'), mode: 'ON_CHANGE' }] });
    await s.until(() => s.syncs() === 1, 5000, 'sync');
    execFileSync('ip', ['-n', w.ns, 'link', 'add', 'gn0', 'type', 'veth', 'peer', 'name', 'gn1']);
    await s.until(() => s.updates().some((u) => u.path === '/interfaces/interface[name=Ethernet9]/state/oper-status'),
      10000, 'Ethernet9 to appear');
    execFileSync('ip', ['-n', w.ns, 'link', 'del', 'gn0']);
    await s.until(() => s.notifications().some((n) => (n.delete || []).length), 10000, 'the deletion');
    const n = s.notifications().find((x) => (x.delete || []).length);
    assert.deepStrictEqual(n.delete.map((d) => c.str(n.prefix, d)), ['/interfaces/interface[name=Ethernet9]']);
    s.close();
  });

  it('samples in-octets every second while traffic flows, as the kernel counts them', async () => {
    const s = new c.Stream(cl, { encoding: 'PROTO', subscription: [{
      path: c.p(`${lo}/state/counters/in-octets`), mode: 'SAMPLE', sample_interval: String(NS) }] });
    await s.until(() => s.syncs() === 1, 5000, 'sync');
    // Nothing else crosses this lo: the kernel's count before and after the
    // traffic brackets exactly what the samples must show.
    await s.until(() => s.updates().length >= 2, 3000, 'a first sample');
    const k0 = c.kernelRxBytes(w.ns);
    const from = s.updates().length;
    const traffic = procs.start(c.bin('intf-traffic'), ['--netns', w.ns, '--seconds', '8', '--rate', '2000',
      '--size', '1000']);
    assert.deepStrictEqual(await traffic.exited, { code: 0, sig: null }, traffic.err);
    const k1 = c.kernelRxBytes(w.ns);
    await c.until(() => s.updates().length >= from + 10, 4000, 'ten seconds of samples');
    const u = s.updates();
    const baseline = u[from - 1].value;
    const last = u[u.length - 1].value;
    for (let i = 1; i < u.length; ++i) {
      assert.ok(u[i].value >= u[i - 1].value, 'counters never go backwards');
      const gap = u[i].ts - u[i - 1].ts;
      assert.ok(gap > NS / 2n && gap < 2n * NS, `samples about a second apart (${gap} ns)`);
    }
    const seen = last - baseline, kernel = k1 - k0;
    const sent = 16000n * 1028n;  // 8 s at 2000 datagrams of 1000 bytes (+28 of headers) each
    assert.ok(seen >= sent * 99n / 100n, `in-octets grew by ${seen}, at least what was sent (${sent})`);
    const off = seen > kernel ? seen - kernel : kernel - seen;
    assert.ok(off * 100n <= kernel, `in-octets grew by ${seen}, the kernel counted ${kernel}: within 1%`);
    console.log(`# SAMPLE: in-octets grew by ${seen} over ${u.length - from} samples; kernel ${kernel}; ` +
      `difference ${Number(off * 100000n / kernel) / 1000}%`);
    s.close();
  });

  it('serves a hundred clients at once', async () => {
    const streams = [];
    for (let i = 0; i < 100; ++i) {
      streams.push(new c.Stream(c.client(w.address), { encoding: 'PROTO', subscription: [{
        path: c.p('/interfaces/interface/state/counters/in-pkts'), mode: 'SAMPLE', sample_interval: String(NS / 5n) }] }));
    }
    await Promise.all(streams.map((s) => s.until(() => s.syncs() === 1 && s.notifications().length >= 2,
      15000, 'sync and a sample')));
    for (const s of streams) s.close();
  });

  it('goes on through a restart of the agent, counters never going backwards', async () => {
    const s = new c.Stream(cl, { encoding: 'PROTO', subscription: [{
      path: c.p(`${lo}/state/counters/in-octets`), mode: 'SAMPLE', sample_interval: String(NS / 5n) }] });
    await s.until(() => s.updates().length >= 3, 5000, 'samples');
    await procs.stop(w.agent);
    const before = s.updates().length;
    w.agent = procs.start(c.bin('intf-agent'), w.agentArgs);
    const traffic = procs.start(c.bin('intf-traffic'), ['--netns', w.ns, '--seconds', '0.5', '--rate', '100']);
    assert.strictEqual((await traffic.exited).code, 0, traffic.err);
    const k = c.kernelRxBytes(w.ns);
    await s.until(() => s.updates().slice(before).some((u) => u.value >= k), 10000, 'samples of the new agent');
    assert.strictEqual(s.status, undefined, 'the stream goes on');
    const u = s.updates();
    for (let i = 1; i < u.length; ++i) assert.ok(u[i].value >= u[i - 1].value, `sample ${i} went backwards`);
    s.close();
  });
});

describe('intf-gnmid and a collector that stops reading', { skip }, () => {
  const procs = new c.Procs();
  after(() => procs.cleanup());

  it('ends its stream with RESOURCE_EXHAUSTED once its bounded queue is full, and serves others', async () => {
    const w = await c.world(procs, ['--client-queue-bytes', '131072']);
    const cl = c.client(w.address);
    await c.until(async () => (await c.call(cl, 'Get', { path: [c.p('/interfaces')] })).notification.length, 10000);
    const rss0 = c.rssKb(w.gnmid.pid);
    const many = [];
    for (let i = 0; i < 3; ++i) many.push({ path: c.p('/interfaces'), mode: 'SAMPLE', sample_interval: String(NS / 10n) });
    const list = { encoding: 'JSON_IETF', subscription: many };
    const reading = new c.Stream(c.client(w.address), list);
    const s = new c.Stream(c.client(w.address), list);
    s.call.pause();
    await c.until(() => w.gnmid.err.includes('INTF_GNMI_CLIENT_TOO_SLOW'), 30000, 'the slow client to be cut off');
    // Another client is answered meanwhile, and memory stayed near the bound.
    const g = await c.call(cl, 'Get', { path: [c.p(`${lo}/state/oper-status`)], encoding: 'PROTO' });
    assert.strictEqual(c.leaves(g.notification[0])[0].value, 'UP');
    const grown = c.rssKb(w.gnmid.pid) - rss0;
    // The same subscription, read, goes on.
    const had = reading.responses.length;
    await reading.until(() => reading.responses.length > had + 10, 5000, 'the reading client to go on');
    assert.strictEqual(reading.status, undefined);
    reading.close();
    assert.ok(grown < 20000, `intf-gnmid grew by ${grown} kB for a client that does not read`);
    s.call.resume();
    await s.until(() => s.error || s.status, 10000, 'the end of the stream');
    const end = s.error || s.status;
    assert.strictEqual(end.code, codes.RESOURCE_EXHAUSTED, JSON.stringify(end));
    assert.match(end.details, /did not read/);
    console.log(`# slow client: cut off at the 128 KiB bound; intf-gnmid grew by ${grown} kB`);
  });
});

describe('intf-gnmid over TLS', { skip }, () => {
  const procs = new c.Procs();
  let dir;
  before(() => {
    dir = fs.mkdtempSync('/tmp/intf-gnmi-tls-');
    procs.onCleanup(() => fs.rmSync(dir, { recursive: true, force: true }));
    const ssl = (...args) => execFileSync('openssl', args, { cwd: dir, stdio: 'pipe' });
    ssl('req', '-x509', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:prime256v1', '-nodes', '-days', '1',
      '-subj', '/CN=test ca', '-keyout', 'ca.key', '-out', 'ca.pem');
    for (const who of ['server', 'client']) {
      ssl('req', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:prime256v1', '-nodes', '-subj', `/CN=${who}`,
        '-keyout', `${who}.key`, '-out', `${who}.csr`);
      fs.writeFileSync(path.join(dir, `${who}.ext`), 'subjectAltName=IP:127.0.0.1,DNS:localhost\n');
      ssl('x509', '-req', '-in', `${who}.csr`, '-CA', 'ca.pem', '-CAkey', 'ca.key', '-CAcreateserial', '-days', '1',
        '-extfile', `${who}.ext`, '-out', `${who}.pem`);
    }
  });
  after(() => procs.cleanup());
  const file = (f) => fs.readFileSync(path.join(dir, f));

  it('serves TLS with the certificate given, and requires client certificates when asked', async () => {
    const w = await c.world(procs, ['--tls-cert', path.join(dir, 'server.pem'), '--tls-key', path.join(dir, 'server.key'),
      '--tls-client-ca', path.join(dir, 'ca.pem')]);
    assert.match(w.gnmid.err, /TLS, client certificates required/);
    const name = w.address.replace('127.0.0.1', 'localhost');  // the name the certificate carries
    const tls = c.client(name, c.lib.grpc.credentials.createSsl(file('ca.pem'), file('client.key'), file('client.pem')));
    const cap = await c.call(tls, 'Capabilities', {});
    assert.strictEqual(cap.gNMI_version, '0.10.0');
    const anonymous = c.client(name, c.lib.grpc.credentials.createSsl(file('ca.pem')));
    await assert.rejects(c.call(anonymous, 'Capabilities', {}), (e) => e.code === 14);
    await assert.rejects(c.call(c.client(w.address), 'Capabilities', {}), (e) => e.code === 14);
  });

  it('refuses plain text away from loopback, and other unusable arguments, before serving', async () => {
    const cases = [
      [['--listen', '0.0.0.0:0'], /refusing plain text on 0.0.0.0:0/],
      [['--tls-cert', path.join(dir, 'server.pem')], /--tls-cert and --tls-key go together/],
      [['--tls-client-ca', path.join(dir, 'ca.pem')], /--tls-client-ca needs --tls-cert and --tls-key/],
      [['--client-queue-bytes', '100'], /--client-queue-bytes takes 4096/],
      [['--listen', 'nowhere'], /ADDRESS:PORT/],
      [['--shm-prefix', 'no-slash'], /--shm-prefix must start with/],
      [['--bogus'], /unknown argument --bogus/],
    ];
    for (const [args, message] of cases) {
      const g = procs.start(c.bin('intf-gnmid'), ['--socket', path.join(dir, 'none.sock'), ...args]);
      assert.deepStrictEqual(await g.exited, { code: 2, sig: null }, args.join(' '));
      assert.match(g.err, message);
    }
    // A certificate or a key that cannot be read: said, and no server.
    for (const [cert, key] of [['missing.pem', 'server.key'], ['server.pem', 'missing.key']]) {
      const bad = procs.start(c.bin('intf-gnmid'), ['--listen', '127.0.0.1:0', '--tls-cert', path.join(dir, cert),
        '--tls-key', path.join(dir, key), '--socket', path.join(dir, 'none.sock')]);
      assert.deepStrictEqual(await bad.exited, { code: 1, sig: null });
      assert.match(bad.err, /cannot read .*missing\.(pem|key)/);
    }
  });
});
