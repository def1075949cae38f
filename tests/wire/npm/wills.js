// Wills at level 5: put off and published, put off and called off by a return, and one to a shared group.
'use strict'

const assert = require('assert')
const { call, connect, messages, nextMessage, run } = require('./clients')

const pause = ms => new Promise(resolve => setTimeout(resolve, ms))
const will = (topic, payload, delay) =>
  ({ will: { topic, payload, qos: 1, properties: { willDelayInterval: delay } } })

// Its connection ends without a DISCONNECT.
async function dies (clientId, options) {
  const [client] = await connect(clientId, options)
  const closed = new Promise(resolve => client.once('close', resolve))
  client.stream.destroy()
  await closed
}

run(async () => {
  const [watcher] = await connect('watcher')
  await call(watcher, 'subscribe', 'gone/#', { qos: 1 })

  const late = nextMessage(watcher)
  const start = Date.now()
  await dies('mortal', will('gone/late', 'after a second', 1))
  assert.strictEqual((await late).payload.toString(), 'after a second')
  assert.ok(Date.now() - start >= 950, 'it came after ' + (Date.now() - start) + ' ms')

  const next = nextMessage(watcher)
  await dies('mortal', will('gone/never', 'too soon', 1))
  const [back] = await connect('mortal')
  await pause(1600)
  await call(back, 'publish', 'gone/well', 'still here', { qos: 1 })
  assert.strictEqual((await next).payload.toString(), 'still here')

  const members = []
  const got = [[], []]
  for (const which of [0, 1]) {
    const [member] = await connect('member-' + which)
    member.on('message', (topic, payload) => got[which].push(payload.toString()))
    await call(member, 'subscribe', '$share/group/gone/shared', { qos: 1 })
    members.push(member)
  }
  const wills = ['one', 'two', 'three', 'four']
  const all = messages(watcher, wills.length)
  for (const payload of wills) {
    await dies('mortal-' + payload, will('gone/shared', payload, 0))
    while (got[0].length + got[1].length <= wills.indexOf(payload)) await pause(2)
  }
  assert.deepStrictEqual((await all).map(one => one.payload), wills)
  assert.deepStrictEqual(got.map(one => one.length), [2, 2], 'they take turns')
  assert.deepStrictEqual([...got[0], ...got[1]].sort(), [...wills].sort())

  for (const client of [back, watcher, ...members]) await call(client, 'end', false, {})
})
