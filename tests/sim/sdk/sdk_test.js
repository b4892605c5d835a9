// Drives ecs-sim with the official Alibaba Cloud Node.js SDKs, unmodified:
//   @alicloud/ecs20140526 (V3 ACS3-HMAC-SHA256 signing, POST with query parameters)
//   @alicloud/pop-core     (V2 HMAC-SHA1 signing, GET query and POST form bodies)
// Environment: HXSIM_HOSTPORT (127.0.0.1:port), HXSIM_AK, HXSIM_SECRET, HXSIM_BYID
// (the by-id folder of the emulator's device root), HXSIM_PROXY, HXSIM_REGION.
'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');
const Ecs = require('@alicloud/ecs20140526');
const { $OpenApiUtil } = require('@alicloud/openapi-core');
const RPCClient = require('@alicloud/pop-core').RPCClient;

const env = (name) => {
  const v = process.env[name];
  if (!v) throw new Error(`${name} is not set`);
  return v;
};
const hostPort = env('HXSIM_HOSTPORT');
const ak = env('HXSIM_AK');
const secret = env('HXSIM_SECRET');
const byId = env('HXSIM_BYID');
const proxy = env('HXSIM_PROXY');
const region = env('HXSIM_REGION');

const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
let failures = 0;
let passes = 0;

async function check(name, fn) {
  try {
    await fn();
    passes++;
    console.log(`ok   ${name}`);
  } catch (e) {
    failures++;
    console.log(`FAIL ${name}: ${e && e.stack ? e.stack : e}`);
  }
}

async function waitFor(what, probe, timeoutMs = 15000) {
  const deadline = Date.now() + timeoutMs;
  for (;;) {
    const value = await probe();
    if (value) return value;
    if (Date.now() > deadline) throw new Error(`timed out waiting for ${what}`);
    await sleep(50);
  }
}

// A create repeated with the same ClientToken while the first still runs is answered
// LastTokenProcessing; the SDK's caller repeats it until the first result is replayed.
async function repeatWhileProcessing(call) {
  for (let attempt = 0; ; attempt++) {
    try {
      return await call();
    } catch (e) {
      if (e.code !== 'LastTokenProcessing' || attempt >= 100) throw e;
      await sleep(20);
    }
  }
}

function v3Client(options = {}) {
  return new Ecs.default(new $OpenApiUtil.Config({
    accessKeyId: ak, accessKeySecret: secret, endpoint: hostPort, protocol: 'http', regionId: region, ...options,
  }));
}

function v2Client(options = {}) {
  return new RPCClient({
    endpoint: `http://${hostPort}`, apiVersion: '2014-05-26', accessKeyId: ak, accessKeySecret: secret, ...options,
  });
}

function linkOf(diskId) {
  return path.join(byId, `virtio-${diskId.replace(/^d-/, '')}`);
}

async function v3Suite() {
  const ecs = v3Client();
  let zone;

  await check('V3 DescribeRegions lists the scenario regions', async () => {
    const r = await ecs.describeRegions(new Ecs.DescribeRegionsRequest({}));
    assert.equal(r.statusCode, 200);
    const ids = r.body.regions.region.map((x) => x.regionId);
    assert.ok(ids.includes(region), `regions ${ids}`);
    assert.ok(ids.length >= 2);
  });

  await check('V3 DescribeInstances finds the proxy, with pagination', async () => {
    const first = await ecs.describeInstances(new Ecs.DescribeInstancesRequest({ regionId: region, maxResults: 2 }));
    assert.equal(first.body.instances.instance.length, 2);
    assert.ok(first.body.nextToken, 'a first page of 2 must carry a NextToken');
    const all = [];
    let token;
    do {
      const page = await ecs.describeInstances(new Ecs.DescribeInstancesRequest({ regionId: region, maxResults: 2, nextToken: token }));
      all.push(...page.body.instances.instance);
      token = page.body.nextToken;
    } while (token);
    const p = all.find((i) => i.instanceId === proxy);
    assert.ok(p, 'proxy listed');
    assert.equal(p.status, 'Running');
    zone = p.zoneId;
    const byIds = await ecs.describeInstances(new Ecs.DescribeInstancesRequest({ regionId: region, instanceIds: JSON.stringify([proxy]) }));
    assert.equal(byIds.body.instances.instance.length, 1);
    assert.equal(byIds.body.instances.instance[0].instanceId, proxy);
  });

  await check('V3 disk lifecycle: create (idempotent), attach, snapshot, detach, delete', async () => {
    const token = `sdk-v3-${Date.now()}`;
    const create = () => ecs.createDisk(new Ecs.CreateDiskRequest({
      regionId: region, zoneId: zone, size: 1, diskCategory: 'cloud_essd', performanceLevel: 'PL0', clientToken: token,
    }));
    const created = await create();
    const diskId = created.body.diskId;
    assert.match(diskId, /^d-[a-z0-9]{20}$/);
    assert.equal((await repeatWhileProcessing(create)).body.diskId, diskId, 'same ClientToken, same disk');

    const describe = async () => (await ecs.describeDisks(new Ecs.DescribeDisksRequest({
      regionId: region, diskIds: JSON.stringify([diskId]) }))).body.disks.disk;
    await waitFor('disk Available', async () => (await describe())[0].status === 'Available');
    assert.equal((await describe())[0].size, 1);

    await ecs.attachDisk(new Ecs.AttachDiskRequest({ instanceId: proxy, diskId }));
    await waitFor('disk In_use', async () => (await describe())[0].status === 'In_use');
    const disk = (await describe())[0];
    assert.equal(disk.instanceId, proxy);
    assert.equal(disk.serialNumber, diskId.slice(2));
    assert.ok(fs.lstatSync(linkOf(diskId)).isSymbolicLink(), 'device link present after attach');
    assert.equal(fs.statSync(linkOf(diskId)).size, 1 << 30);

    const snap = await ecs.createSnapshot(new Ecs.CreateSnapshotRequest({ diskId, snapshotName: 'sdk-v3' }));
    const snapshotId = snap.body.snapshotId;
    assert.match(snapshotId, /^s-/);
    const done = await waitFor('snapshot accomplished', async () => {
      const r = await ecs.describeSnapshots(new Ecs.DescribeSnapshotsRequest({ regionId: region, snapshotIds: JSON.stringify([snapshotId]) }));
      const s = r.body.snapshots.snapshot[0];
      return s.status === 'accomplished' ? s : null;
    });
    assert.equal(done.progress, '100%');
    assert.equal(done.sourceDiskId, diskId);

    await ecs.detachDisk(new Ecs.DetachDiskRequest({ instanceId: proxy, diskId }));
    assert.ok(!fs.existsSync(linkOf(diskId)), 'device link removed on detach');
    await waitFor('disk Available again', async () => (await describe())[0].status === 'Available');

    await ecs.deleteSnapshot(new Ecs.DeleteSnapshotRequest({ snapshotId }));
    const after = await ecs.describeSnapshots(new Ecs.DescribeSnapshotsRequest({ regionId: region, snapshotIds: JSON.stringify([snapshotId]) }));
    assert.equal(after.body.snapshots.snapshot.length, 0);
    await ecs.deleteDisk(new Ecs.DeleteDiskRequest({ diskId }));
    assert.equal((await describe()).length, 0);
  });

  await check('V3 instance attributes: describe, modify, network interfaces', async () => {
    const listed = (await ecs.describeInstances(new Ecs.DescribeInstancesRequest({ regionId: region, maxResults: 500 })))
      .body.instances.instance;
    assert.ok(listed.length > 2, 'MaxResults above 100 is capped, not refused');
    const target = listed.find((i) => i.instanceId !== proxy);
    const card = target.networkInterfaces.networkInterface[0];
    assert.equal(card.type, 'Primary');
    assert.equal(card.primaryIpAddress, target.vpcAttributes.privateIpAddress.ipAddress[0]);
    assert.match(card.networkInterfaceId, /^eni-/);

    const attr = async () => (await ecs.describeInstanceAttribute(
      new Ecs.DescribeInstanceAttributeRequest({ instanceId: target.instanceId }))).body;
    const before = await attr();
    assert.equal(before.instanceName, target.instanceName);
    assert.equal(before.vpcAttributes.vSwitchId, target.vpcAttributes.vSwitchId);
    await ecs.modifyInstanceAttribute(new Ecs.ModifyInstanceAttributeRequest({
      instanceId: target.instanceId, description: 'checked by the SDK test', hostName: 'sdk-host' }));
    const after = await attr();
    assert.equal(after.description, 'checked by the SDK test');
    assert.equal(after.hostName, 'sdk-host');
    await assert.rejects(ecs.modifyInstanceAttribute(new Ecs.ModifyInstanceAttributeRequest({
      instanceId: target.instanceId, instanceName: '9starts-with-a-digit' })),
      (e) => e.code === 'InvalidInstanceName.Malformed' && e.statusCode === 400);
    await ecs.modifyInstanceAttribute(new Ecs.ModifyInstanceAttributeRequest({
      instanceId: target.instanceId, description: before.description, hostName: before.hostName || 'host' }));
  });

  await check('V3 deleting a snapshot that does not exist is ignored, as ECS documents', async () => {
    const r = await ecs.deleteSnapshot(new Ecs.DeleteSnapshotRequest({ snapshotId: 's-doesnotexist000000000' }));
    assert.equal(r.statusCode, 200);
  });

  await check('V3 errors arrive as SDK exceptions with the ECS code and status', async () => {
    await assert.rejects(ecs.attachDisk(new Ecs.AttachDiskRequest({ instanceId: proxy, diskId: 'd-doesnotexist0000000' })),
      (e) => e.code === 'InvalidDiskId.NotFound' && e.statusCode === 404);
    const wrong = v3Client({ accessKeySecret: 'not-the-secret' });
    await assert.rejects(wrong.describeRegions(new Ecs.DescribeRegionsRequest({})),
      (e) => e.code === 'SignatureDoesNotMatch' && e.statusCode === 400);
  });

  await check('ecs20140526 with signatureAlgorithm v2 is accepted too', async () => {
    const legacy = v3Client({ signatureAlgorithm: 'v2' });
    const r = await legacy.describeZones(new Ecs.DescribeZonesRequest({ regionId: region }));
    assert.ok(r.body.zones.zone.some((z) => z.zoneId === zone));
  });
}

async function v2Suite() {
  const pop = v2Client();
  const post = { method: 'POST' };
  let zone;

  await check('V2 DescribeRegions (GET) and DescribeInstances', async () => {
    const r = await pop.request('DescribeRegions', {});
    assert.ok(r.Regions.Region.some((x) => x.RegionId === region));
    const i = await pop.request('DescribeInstances', { RegionId: region, InstanceIds: JSON.stringify([proxy]) });
    assert.equal(i.Instances.Instance.length, 1);
    zone = i.Instances.Instance[0].ZoneId;
    assert.ok(!('Code' in r), 'a success body has no Code');
  });

  await check('V2 disk lifecycle over POST form bodies', async () => {
    const { DiskId: diskId } = await pop.request('CreateDisk',
      { RegionId: region, ZoneId: zone, Size: 2, DiskCategory: 'cloud_auto' }, post);
    const status = async () => (await pop.request('DescribeDisks',
      { RegionId: region, DiskIds: JSON.stringify([diskId]) })).Disks.Disk[0].Status;
    await waitFor('Available', async () => (await status()) === 'Available');
    await pop.request('AttachDisk', { InstanceId: proxy, DiskId: diskId }, post);
    await waitFor('In_use', async () => (await status()) === 'In_use');
    assert.ok(fs.existsSync(linkOf(diskId)));
    const { SnapshotId: snapshotId } = await pop.request('CreateSnapshot', { DiskId: diskId }, post);
    await waitFor('accomplished', async () => (await pop.request('DescribeSnapshots',
      { RegionId: region, SnapshotIds: JSON.stringify([snapshotId]) })).Snapshots.Snapshot[0].Status === 'accomplished');
    await pop.request('DetachDisk', { InstanceId: proxy, DiskId: diskId }, post);
    await waitFor('Available', async () => (await status()) === 'Available');
    assert.ok(!fs.existsSync(linkOf(diskId)));
    await pop.request('DeleteSnapshot', { SnapshotId: snapshotId }, post);
    await pop.request('DeleteDisk', { DiskId: diskId }, post);
    const left = await pop.request('DescribeDisks', { RegionId: region, DiskIds: JSON.stringify([diskId]) });
    assert.equal(left.Disks.Disk.length, 0);
  });

  await check('V2 errors: wrong secret, wrong zone', async () => {
    const wrong = v2Client({ accessKeySecret: 'nope' });
    await assert.rejects(wrong.request('DescribeRegions', {}), (e) => e.code === 'SignatureDoesNotMatch');
    const other = (await pop.request('DescribeDisks', { RegionId: region, ZoneId: 'cn-hangzhou-i' })).Disks.Disk;
    const foreign = other.find((d) => d.Status === 'In_use' && d.Type === 'data');
    if (foreign) {
      await pop.request('DetachDisk', { InstanceId: foreign.InstanceId, DiskId: foreign.DiskId }, post);
      await waitFor('Available', async () => (await pop.request('DescribeDisks',
        { RegionId: region, DiskIds: JSON.stringify([foreign.DiskId]) })).Disks.Disk[0].Status === 'Available');
      await assert.rejects(pop.request('AttachDisk', { InstanceId: proxy, DiskId: foreign.DiskId }, post),
        (e) => e.code === 'ResourcesNotInSameZone');
    }
  });
}

(async () => {
  await v3Suite();
  await v2Suite();
  console.log(`${passes} passed, ${failures} failed`);
  process.exit(failures === 0 ? 0 : 1);
})().catch((e) => {
  console.log(`FAIL unexpected: ${e && e.stack ? e.stack : e}`);
  process.exit(1);
});
