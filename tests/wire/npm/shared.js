// Three clients in one shared group: each message goes to one of them, in turn.
'use strict'

const assert = require('assert')
const { call, connect, messages, run } = require('./clients')

const ROUNDS = 10

run(async () => {
  const [publisher] = await connect('publisher')
  const members = []
  for (const id of ['first', 'second', 'third']) members.push((await connect(id))[0])
  for (const qos of [1, 2]) {
    for (const member of members) await call(member, 'subscribe', '$share/group/t', { qos })
    const arrivals = members.map(member => messages(member, ROUNDS))
    for (let i = 0; i < 3 * ROUNDS; i++) await call(publisher, 'publish', 't', 'message ' + i, { qos })
    const got = await Promise.all(arrivals)
    got.forEach((mine, member) => assert.deepStrictEqual(mine.map(one => one.payload),
      Array.from({ length: ROUNDS }, (_, round) => 'message ' + (3 * round + member))))
  }
  for (const client of [publisher, ...members]) await call(client, 'end', false, {})
})
