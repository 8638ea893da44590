/// <reference lib="esnext.disposable" />
// zirdb for Node.js: scriptable database objects over ODBC.

/** What comes back: undefined for Empty, null for NULL. */
export type Value =
  | undefined
  | null
  | boolean
  | number
  | bigint
  | string
  | Date
  | Uint8Array
  | Value[]
  | AutomationObject
  | ZirdbError;

/** What may be passed. */
export type Argument =
  | null
  | boolean
  | number
  | bigint
  | string
  | Date
  | Uint8Array
  | readonly Argument[]
  | VariantDate
  | Out
  | AutomationObject
  | ((...values: any[]) => unknown);

/** A statement that gives a recordset, as its beginning tells. */
export type Select = `${'SELECT' | 'Select' | 'select'} ${string}`;

/** One row of a recordset: column names and values. */
export type Row = Record<string, any>;

/** What every object has besides its members. */
export interface AutomationObject {
  /** Drops the reference to the object; every further use fails. */
  release(): void;
  /** The same, for `using`. */
  [Symbol.dispose](): void;
}

/** An object of a class that this package has no table of. */
export interface UnknownObject extends AutomationObject {
  (...values: Argument[]): any;
  [member: string]: any;
}

/** A failure that an object reports. */
export class ZirdbError extends Error {
  private constructor();
  readonly name: 'ZirdbError';
  /** The code as a number of 32 bits with a sign. */
  readonly number: number;
  /** The code as documented: "0x800A0CC1". */
  readonly code: string;
  /** Who reports it, such as "ZIRDB.Connection"; '' when nobody says. */
  readonly source: string;
  /** In the words of who reports it; '' without any. */
  readonly description: string;
  /** The driver's SQLSTATE, where the database reports. */
  readonly sqlState: string | undefined;
}

/** A place for what a call gives back. */
export interface Out<T = any> {
  value: T;
}

/** A date that is passed as a date instead of as text. */
export interface VariantDate {
  readonly date: Date;
}

export interface CreateOptions {
  /**
   * 'bigint' makes every integer a BigInt that comes back from the object and
   * from everything that comes out of it. The default: those that a number
   * holds exactly are numbers.
   */
  integers?: 'number' | 'bigint';
}

/**
 * Creates an object by the name of its class. With BigInts the declarations do
 * not know which of its numbers are such.
 */
export function createObject(
  progId: string,
  options: CreateOptions & { integers: 'bigint' },
): any;
export function createObject(
  progId: 'ZIRDB.Connection',
  options?: CreateOptions,
): Connection;
export function createObject(
  progId: 'ZIRDB.Command',
  options?: CreateOptions,
): Command;
export function createObject(
  progId: 'ZIRDB.Recordset',
  options?: CreateOptions,
): Recordset;
export function createObject(progId: string, options?: CreateOptions): any;

/** Whether a driver says in this way that a change matched no row. */
export function isNoRows(error: unknown): boolean;

/** An argument in which the call stores what it gives back. */
export function out<T = any>(initial?: T): Out<T>;

/** An argument that is sent as a date; a plain Date is sent as text in UTC. */
export function variantDate(date: Date): VariantDate;

/**
 * Releases, when `run` is done, every object that came up in it, but for one
 * that it returns. `run` must not be asynchronous.
 */
export function scope<T>(run: () => T): T;

/** What `object.release()` does, for any object. */
export function release(object: AutomationObject): void;

/** The number of objects that this thread holds. */
export function liveObjects(): number;

/** Whether no object of the library is alive in the whole process. */
export function libraryIdle(): boolean;

/** Calls a member by its name; the way in where there is no table. */
export function call(
  object: AutomationObject,
  name: string,
  ...values: Argument[]
): any;

/** Reads a property by its name. */
export function get(object: AutomationObject, name: string): any;

/** Sets a property by its name. */
export function put(
  object: AutomationObject,
  name: string,
  value: Argument,
): void;
