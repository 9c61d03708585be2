// A STUN server (RFC 3489, of which RFC 8489 keeps what matters here) on loopback that says whatever address it is told to.
import dgram from 'node:dgram';
import { once } from 'node:events';

const kBindingRequest = 0x0001;
const kBindingSuccess = 0x0101;
const kMappedAddress = 0x0001;
const kIpv4 = 1;

function answer(request, { address, port }) {
  const response = Buffer.alloc(32);
  response.writeUInt16BE(kBindingSuccess, 0);
  response.writeUInt16BE(12, 2);
  request.copy(response, 4, 4, 20); // the transaction
  response.writeUInt16BE(kMappedAddress, 20);
  response.writeUInt16BE(8, 22);
  response[25] = kIpv4;
  response.writeUInt16BE(port, 26);
  Buffer.from(address.split('.').map(Number)).copy(response, 28);
  return response;
}

export class StunServer {
  requests = 0;

  // mapped: the address that it tells everybody, { address, port }; null: it does not answer.
  static async start(mapped, address = '127.0.0.1') {
    const server = new StunServer();
    server.socket = dgram.createSocket('udp4');
    server.socket.on('message', (message, from) => {
      if (message.length < 20 || message.readUInt16BE(0) !== kBindingRequest) return;
      ++server.requests;
      if (mapped) server.socket.send(answer(message, mapped), from.port, from.address);
    });
    server.socket.bind(0, address);
    await once(server.socket, 'listening');
    return server;
  }

  get port() {
    return this.socket.address().port;
  }

  get url() {
    return `stun:127.0.0.1:${this.port}`;
  }

  stop() {
    this.socket.close();
  }
}
