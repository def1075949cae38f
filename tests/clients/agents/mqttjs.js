// The stock JavaScript client as a test's client: orders as lines of standard input, see ../agent.py. The argument is
// the package's name.
'use strict'

const fs = require('fs')
const readline = require('readline')
const mqtt = require(process.argv[2])

let client = null
let level = 4

const say = line => process.stdout.write(line + '\n')

const call = (name, ...args) =>
  new Promise((resolve, reject) => client[name](...args, (error, result) => error ? reject(error) : resolve(result)))

function printMessage (topic, payload, packet) {
  const given = packet.properties || {}
  let more = ''
  if (given.responseTopic) more += ' response=' + given.responseTopic
  if (given.correlationData) more += ' correlation=' + given.correlationData
  if (given.contentType) more += ' type=' + given.contentType
  if (given.subscriptionIdentifier) more += ' identifier=' + given.subscriptionIdentifier
  for (const [name, value] of Object.entries(given.userProperties || {})) more += ` user=${name}:${value}`
  say(`message topic=${topic} qos=${packet.qos} retain=${+packet.retain} dup=${+packet.dup} ` +
      `payload=${payload.toString('hex')}${more}`)
}

function will (order) {
  const message = {
    topic: order.will_topic,
    payload: Buffer.from(order.will_payload, 'hex'),
    qos: +order.will_qos,
    retain: order.will_retain === '1'
  }
  if (order.will_delay) message.properties = { willDelayInterval: +order.will_delay }
  return message
}

function connect (order) {
  level = +order.level
  const options = {
    protocolVersion: level,
    clientId: order.id,
    clean: order.clean === '1',
    keepalive: +order.keepalive,
    connectTimeout: 3000,
    reconnectPeriod: 0,
    resubscribe: false
  }
  if (level === 5) {
    const given = options.properties = {}
    if (order.expiry) given.sessionExpiryInterval = +order.expiry
    if (order.receive_maximum) given.receiveMaximum = +order.receive_maximum
    if (order.maximum_packet_size) given.maximumPacketSize = +order.maximum_packet_size
    if (order.aliases) Object.assign(options, { topicAliasMaximum: 10, autoAssignTopicAlias: true })
  }
  if (order.username) Object.assign(options, { username: order.username, password: order.password })
  if (order.will_topic) options.will = will(order)
  return new Promise((resolve, reject) => {
    const own = client = mqtt.connect(`mqtt://127.0.0.1:${order.port}`, options)
    let reason = ''
    own.on('message', printMessage)
    own.on('disconnect', packet => { reason = ` reason=${packet.reasonCode}` })
    own.on('error', reject)
    own.on('connect', connack => {
      own.on('close', () => say('closed' + reason))
      resolve('ok present=' + +connack.sessionPresent)
    })
    own.on('close', () => reject(new Error('closed before CONNACK' + reason)))
  })
}

// The client leaves refused filters out of what it gives, so the codes come from the packet itself.
async function subscribe (order) {
  const filters = {}
  for (const filter of order.filters.split(',')) {
    filters[filter] = {
      qos: +order.qos,
      nl: order.no_local === '1',
      rap: order.retain_as_published === '1',
      rh: +(order.retain_handling || 0)
    }
  }
  const properties = order.identifier ? { properties: { subscriptionIdentifier: +order.identifier } } : {}
  const suback = new Promise(resolve => {
    client.on('packetreceive', function take (packet) {
      if (packet.cmd !== 'suback') return
      client.removeListener('packetreceive', take)
      resolve(packet.granted)
    })
  })
  await call('subscribe', filters, properties)
  return 'ok codes=' + (await suback).join(',')
}

async function unsubscribe (order) {
  await call('unsubscribe', order.filters.split(','))
  return 'ok'
}

async function publish (order) {
  const options = { qos: +order.qos, retain: order.retain === '1' }
  if (level === 5) {
    const given = options.properties = {}
    if (order.expiry) given.messageExpiryInterval = +order.expiry
    if (order.response) given.responseTopic = order.response
    if (order.correlation) given.correlationData = Buffer.from(order.correlation)
    if (order.type) given.contentType = order.type
    if (order.user) given.userProperties = Object.fromEntries([order.user.split(':')])
  }
  await call('publish', order.topic, Buffer.from(order.payload || '', 'hex'), options)
  return 'ok'
}

// Messages "0", "1", ...: all on the way at once.
async function burst (order) {
  const sent = []
  for (let i = 0; i < +order.count; ++i) sent.push(call('publish', order.topic, String(i), { qos: +order.qos }))
  await Promise.all(sent)
  return 'ok'
}

async function disconnect () {
  await call('end', false, {})
  return 'ok'
}

const orders = { connect, subscribe, unsubscribe, publish, burst, disconnect }

async function obey (line) {
  const [word, ...fields] = line.split(' ')
  const order = Object.fromEntries(fields.map(field => {
    const at = field.indexOf('=')
    return [field.slice(0, at), field.slice(at + 1)]
  }))
  try {
    say(await orders[word](order))
  } catch (error) {
    say(`error ${error.message}`.replace(/\n/g, ' '))
  }
}

process.on('uncaughtException', error => say(`closed error=${String(error.message).replace(/\s/g, '_')}`))
const input = readline.createInterface({ input: process.stdin })
const { version } = JSON.parse(fs.readFileSync(`${process.env.NODE_PATH}/${process.argv[2]}/package.json`))
say('ready version=' + version)
let last = Promise.resolve()
input.on('line', line => { last = last.then(() => obey(line)) })
input.on('close', () => last.then(() => process.exit(0)))
