import { describe, expect, it } from 'vitest';
import { ApiError, type Problem } from '../src/api';
import { errorText, fieldOf, placeErrors } from '../src/forms';

// The members of the place form's fields, in the order of the page.
const PLACE_FORM = [
  '/properties/placeId',
  '/properties/name',
  '/geometry',
  '/geometry/coordinates/1',
  '/geometry/coordinates/0',
  '/properties/radius',
  '/properties/offers',
  '/properties/offers/0/campaign',
  '/properties/offers/0/campaign/name',
  '/properties/offers/0/eventName',
  '/properties/offers/1/eventName',
  '/properties/offers/10/eventName',
];
const at = (member: string): number => PLACE_FORM.indexOf(member);

function answer(message: string, member: string | null, problems: Partial<Problem>[] = [], status = 400): ApiError {
  return new ApiError(status, message, member, problems.map((p) => ({ feature: null, member: null, message: '', ...p })), null, null);
}

describe('the field of a member the server names', () => {
  it('is the field of that member, else the deepest that holds it', () => {
    expect(fieldOf(PLACE_FORM, '/geometry/coordinates/1')).toBe(at('/geometry/coordinates/1'));
    expect(fieldOf(PLACE_FORM, '/geometry/coordinates')).toBe(at('/geometry'));
    expect(fieldOf(PLACE_FORM, '/properties/offers/0/campaign/startDate')).toBe(at('/properties/offers/0/campaign'));
    expect(fieldOf(PLACE_FORM, '/properties/offers/0/campaign/name')).toBe(at('/properties/offers/0/campaign/name'));
  });

  it('matches whole reference tokens, not prefixes of them', () => {
    expect(fieldOf(PLACE_FORM, '/properties/offers/10/eventName')).toBe(at('/properties/offers/10/eventName'));
    expect(fieldOf(PLACE_FORM, '/properties/offers/1/eventName')).toBe(at('/properties/offers/1/eventName'));
    expect(fieldOf(PLACE_FORM, '/properties/names')).toBe(-1);
    expect(fieldOf(PLACE_FORM, '/properties/radiusMetres')).toBe(-1);
  });

  it('falls back to the offers box for an offer the form no longer has', () => {
    expect(fieldOf(PLACE_FORM, '/properties/offers/4/mediaUrl')).toBe(at('/properties/offers'));
  });

  it('is none for the whole body, or a field without a member', () => {
    expect(fieldOf(PLACE_FORM, '')).toBe(-1);
    expect(fieldOf(['', '/name'], '/x')).toBe(-1);
    expect(fieldOf([], '/name')).toBe(-1);
    expect(fieldOf(['/name', '/name'], '/name')).toBe(0);
  });
});

describe('where an answer’s messages go', () => {
  it('tells the server’s one problem once, though it names it twice', () => {
    const e = answer('radius must be more than 0', '/properties/radius', [{ member: '/properties/radius', message: 'radius must be more than 0', feature: 0 }]);
    expect(placeErrors(e, e.message, PLACE_FORM)).toEqual([{ field: at('/properties/radius'), message: 'radius must be more than 0' }]);
  });

  it('puts each problem at its field in the server’s order, two at one field both', () => {
    const e = answer('3 problems in the place', null, [
      { member: '/properties/offers/0/eventName', message: 'eventName is missing' },
      { member: '/geometry/coordinates/1', message: 'latitude is out of range' },
      { member: '/properties/offers/0/eventName', message: 'eventName is too long' },
    ]);
    expect(placeErrors(e, e.message, PLACE_FORM)).toEqual([
      { field: at('/properties/offers/0/eventName'), message: 'eventName is missing' },
      { field: at('/geometry/coordinates/1'), message: 'latitude is out of range' },
      { field: at('/properties/offers/0/eventName'), message: 'eventName is too long' },
    ]);
  });

  it('tells the answer’s words for a problem without its own', () => {
    const e = answer('the place is not valid', null, [{ member: '/properties/name' }]);
    expect(placeErrors(e, e.message, PLACE_FORM)).toEqual([{ field: at('/properties/name'), message: 'the place is not valid' }]);
  });

  it('places nothing for members no field holds, so the form tells it at the top', () => {
    expect(placeErrors(answer('not a Feature', '/type'), 'not a Feature', PLACE_FORM)).toEqual([]);
    expect(placeErrors(answer('the database is away', null, [], 503), 'x', PLACE_FORM)).toEqual([]);
    expect(placeErrors(answer('bad', '', [{ member: '' }]), 'bad', PLACE_FORM)).toEqual([]);
  });
});

describe('the text of an error', () => {
  it('says when to try again after a 429 only', () => {
    const slow = (status: number, retryAfter: string | null): ApiError => new ApiError(status, 'slow down', null, [], null, retryAfter);
    expect(errorText(slow(429, '12'))).toBe('slow down (try again in 12 s)');
    expect(errorText(slow(429, null))).toBe('slow down');
    expect(errorText(slow(503, '12'))).toBe('slow down');
  });

  it('adds what the screen explains, before the wait', () => {
    const e = new ApiError(429, 'busy', null, [], null, '5');
    expect(errorText(e, () => 'Remove its offers first.')).toBe('busy Remove its offers first. (try again in 5 s)');
    expect(errorText(e, () => null)).toBe('busy (try again in 5 s)');
  });

  it('tells other errors by their message, without asking the screen', () => {
    const explain = (): string => 'never';
    expect(errorText(new Error('Enter the admin token.'), explain)).toBe('Enter the admin token.');
    expect(errorText('plain', explain)).toBe('plain');
  });
});
