// The demonstration's gNMI collector: Node's own gRPC client, loading our
// .proto, subscribes to intf-gnmid and prints one SAMPLE update of the
// interface's counters and one ON_CHANGE update of its oper status (made by
// setting the namespace's lo down, when a namespace is given).
//   node tools/gnmi_demo.js ADDRESS INTERFACE [NAMESPACE]
'use strict';
const path = require('node:path');
const { execFileSync } = require('node:child_process');
const c = require(path.join(__dirname, '..', 'tests', 'gnmi', 'client.js'));

const [address, intf, ns] = process.argv.slice(2);
if (c.lib.missing) {
  console.log(`no gNMI client: ${c.lib.missing}`);
  process.exit(1);
}
const at = `/interfaces/interface[name=${intf}]`;
const show = (what, s, from) => {
  const u = s.updates().slice(from);
  console.log(`-- ${what}: ${u.length} leaves, sampled ${new Date(Number(u[0].ts / 1000000n)).toISOString()}`);
  for (const l of u) console.log(`   ${l.path} = ${l.value}`);
};

(async () => {
  const cl = c.client(address);
  const sample = new c.Stream(cl, { encoding: 'PROTO', subscription: [{
    path: c.p(`${at}/state/counters`), mode: 'SAMPLE', sample_interval: '1000000000' }] });
  await sample.until(() => sample.syncs() === 1, 10000, 'the first pass');
  const first = sample.updates().length;
  await sample.until(() => sample.updates().length > first, 5000, 'a sample');
  show('SAMPLE update (every second) of ' + at + '/state/counters', sample, first);
  sample.close();

  const change = new c.Stream(cl, { encoding: 'PROTO', subscription: [{
    path: c.p(`${at}/state`), mode: 'ON_CHANGE' }] });
  await change.until(() => change.syncs() === 1, 10000, 'the first pass');
  const had = change.updates().length;
  if (!ns) {
    console.log('-- ON_CHANGE: the current state (nothing here may be changed without a namespace of our own)');
    show('ON_CHANGE initial pass of ' + at + '/state', change, 0);
  } else {
    console.log(`-- setting lo down in ${ns}`);
    execFileSync('ip', ['-n', ns, 'link', 'set', 'lo', 'down']);
    await change.until(() => change.updates().length > had, 5000, 'the change');
    show('ON_CHANGE update of ' + at + '/state (only what changed)', change, had);
    execFileSync('ip', ['-n', ns, 'link', 'set', 'lo', 'up']);
  }
  change.close();
  process.exit(0);
})().catch((e) => { console.error(e.message); process.exit(1); });
